package com.norvane.mendline.console;

import java.math.BigDecimal;
import java.math.BigInteger;
import java.util.Locale;

/** Short forms of large numbers for people. */
final class HumanUnits {

    private static final String[] UNITS = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};

    private static final BigInteger MILLION = BigInteger.TEN.pow(6);

    private HumanUnits() {
    }

    /** @param bytes unsigned */
    static String bytes(long bytes) {
        if (bytes >= 0 && bytes < 1024) {
            return bytes + " B";
        }
        double value = (bytes >>> 1) * 2.0 + (bytes & 1);
        int unit = 0;
        // Compared as it will be printed, so that nothing reads "1024.0 KiB".
        while (Math.round(value * 10) >= 10240 && unit < UNITS.length - 1) {
            value /= 1024;
            unit++;
        }
        return String.format(Locale.ROOT, "%.1f %s", value, UNITS[unit]);
    }

    /** The number, or from a million on its size: 18446744073709551615 would not fit a column. */
    static String count(BigInteger number) {
        return number.abs().compareTo(MILLION) < 0 ? number.toString()
                : scientific(new BigDecimal(number));
    }

    /** Three digits and the power of ten, as in 1.84e19. */
    static String scientific(BigDecimal number) {
        return String.format(Locale.ROOT, "%.2e", number).replaceFirst("e\\+0?", "e");
    }

    /** Minutes and seconds, as in 14:30; hours only where there are some.
     *
     *  @param seconds not negative */
    static String minutes(long seconds) {
        return seconds < 3600 ? String.format(Locale.ROOT, "%d:%02d", seconds / 60, seconds % 60)
                : String.format(Locale.ROOT, "%d:%02d:%02d", seconds / 3600, seconds % 3600 / 60,
                        seconds % 60);
    }

    /** @param seconds not negative */
    static String age(long seconds) {
        if (seconds < 60) {
            return seconds + "s";
        }
        if (seconds < 3600) {
            return seconds / 60 + "m" + seconds % 60 + "s";
        }
        if (seconds < 86400) {
            return seconds / 3600 + "h" + seconds % 3600 / 60 + "m";
        }
        return seconds / 86400 + "d" + seconds % 86400 / 3600 + "h";
    }
}
