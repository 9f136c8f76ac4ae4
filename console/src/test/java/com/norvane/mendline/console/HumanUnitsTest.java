package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.math.BigInteger;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class HumanUnitsTest {

    @ParameterizedTest
    @CsvSource({"0, 0 B", "1023, 1023 B", "1024, 1.0 KiB", "1536, 1.5 KiB", "1048524, 1023.9 KiB",
        "1048575, 1.0 MiB", "4096000, 3.9 MiB", "3221225472, 3.0 GiB",
        "9223372036854775807, 8.0 EiB", "9223372036854775808, 8.0 EiB",
        "18446744073709551615, 16.0 EiB"})
    void bytes(String bytes, String shown) {
        assertEquals(shown, HumanUnits.bytes(Long.parseUnsignedLong(bytes)));
    }

    @ParameterizedTest
    @CsvSource({"0, 0s", "59, 59s", "60, 1m0s", "3599, 59m59s", "3600, 1h0m", "86399, 23h59m",
        "86400, 1d0h", "8640000, 100d0h"})
    void ages(long seconds, String shown) {
        assertEquals(shown, HumanUnits.age(seconds));
    }

    @ParameterizedTest
    @CsvSource({"0, 0", "999999, 999999", "1000000, 1.00e6", "-999999, -999999",
        "-1000000, -1.00e6", "18446744073709551615, 1.84e19", "614891469123651720, 6.15e17"})
    void counts(BigInteger number, String shown) {
        assertEquals(shown, HumanUnits.count(number));
    }

    @ParameterizedTest
    @CsvSource({"0, 0:00", "9, 0:09", "870, 14:30", "3599, 59:59", "3600, 1:00:00",
        "360061, 100:01:01"})
    void minutes(long seconds, String shown) {
        assertEquals(shown, HumanUnits.minutes(seconds));
    }
}
