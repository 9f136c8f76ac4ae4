package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

class LoadTest {

    private static LoadFigures parse(String cpu, String memory, String read, String write,
            String rate) {
        return LoadFigures.of(Answer.parse(FakeLibrary.HEAD + "<LB><cpuUsage>" + cpu
                + "</cpuUsage><memUsage>" + memory + "</memUsage><diskRead>" + read
                + "</diskRead><diskWrite>" + write + "</diskWrite><diskQueue>" + rate
                + "</diskQueue></LB>"));
    }

    @Test
    void everyFigureHasItsUnit() {
        LoadFigures figures = parse("12.500000", "43.215000", "0.000000", "1.250000", "117.000000");
        assertEquals(List.of(
                "CPU          12.50 %",
                "memory       43.22 %",
                "disk read     0.00 ms each",
                "disk write    1.25 ms each",
                "disk rate   117.00 reads and writes per s"), LoadText.lines(figures));
        assertEquals("{\"cpuUsage\":12.500000,\"memUsage\":43.215000,\"diskRead\":0.000000,"
                + "\"diskWrite\":1.250000,\"diskQueue\":117.000000}", LoadText.json(figures));
    }

    @Test
    void whatIsNoNumberIsNeitherShownNorWrittenAsOne() {
        LoadFigures figures = parse("nan", "-nan", "inf", "-inf", "18446744073709551616.000000");
        assertEquals(List.of(
                "CPU               - %",
                "memory            - %",
                "disk read       inf ms each",
                "disk write     -inf ms each",
                "disk rate   1.84e19 reads and writes per s"), LoadText.lines(figures));
        assertEquals("{\"cpuUsage\":null,\"memUsage\":null,\"diskRead\":null,"
                + "\"diskWrite\":null,\"diskQueue\":18446744073709551616.000000}",
                LoadText.json(figures));
    }

    @Test
    void theLargestAndNegativeFiguresAreRead() {
        String largest = "1" + "7".repeat(308) + ".000000";
        LoadFigures figures = parse("-5.000000", largest, "-" + largest, "0", "-0.000000");
        assertEquals("CPU             -5.00 %", LoadText.lines(figures).get(0));
        assertEquals("memory       1.78e308 %", LoadText.lines(figures).get(1));
        assertEquals("disk read   -1.78e308 ms each", LoadText.lines(figures).get(2));
    }

    @Test
    void theDecimalSignOfAnyLocaleIsRead() {
        LoadFigures figures = parse("12,500000", "-43,215000", "0\u066B250000", "0,000000", "nan");
        assertEquals("{\"cpuUsage\":12.500000,\"memUsage\":-43.215000,\"diskRead\":0.250000,"
                + "\"diskWrite\":0.000000,\"diskQueue\":null}", LoadText.json(figures));
    }

    @ParameterizedTest
    @ValueSource(strings = {"", "x", "1,", "1,5,0", "1.5,0", "+1.0", "1.", ".5", "1e5", "01.0",
        "NaN", "infinity", "\u0661.0", " 1.0"})
    void whatIsNotLikeTheLibrarysFiguresIsSaidSo(String text) {
        assertEquals(ExitCodes.UNUSABLE, assertThrows(ConsoleException.class,
                () -> parse("1.0", "1.0", "1.0", "1.0", text)).exitCode());
    }

    @Test
    void aMissingFigureIsSaidSo() {
        assertEquals(ExitCodes.UNUSABLE, assertThrows(ConsoleException.class,
                () -> LoadFigures.of(Answer.parse(FakeLibrary.HEAD
                        + "<LB><cpuUsage>1.0</cpuUsage></LB>"))).exitCode());
    }
}
