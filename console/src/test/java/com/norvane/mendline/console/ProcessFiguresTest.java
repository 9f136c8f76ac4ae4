package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class ProcessFiguresTest {

    private static final String PROCESS = "<process><id>4711</id><create_time>1700000000</create_time>"
            + "<name>a&lt;b\u0001</name><cpu>9223372036854775808</cpu><mem>18446744073709551615</mem>"
            + "<disk>12345</disk><user_name/></process>";

    private static ProcessFigures parse(String content) {
        return ProcessFigures.of(Answer.parse("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                + "<processMetrics>" + content + "</processMetrics>"));
    }

    @Test
    void readsAProcess() {
        ProcessFigures figures = parse("<timestamp>86430</timestamp>" + PROCESS + PROCESS);
        assertEquals(86430, figures.timestamp());
        assertEquals(2, figures.processes().size());
        assertEquals(new ProcessFigure(4711, 1_700_000_000, "a<b\uFFFD", ProcessFigure.NO_FIGURE, -1,
                12345, ""), figures.processes().get(0));
        assertFalse(figures.processes().get(0).hasCpu());
        assertFalse(figures.none());
        assertFalse(figures.idle());
    }

    @Test
    void beforeTheFirstTickThereIsATimestampOfZero() {
        assertTrue(parse("<timestamp>0</timestamp>").none());
    }

    @Test
    void aFirstTickIsIdle() {
        assertTrue(new ProcessFigures(5,
                List.of(new ProcessFigure(1, 2, "a", 0, 7, 0, "b"))).idle());
        assertFalse(new ProcessFigures(5,
                List.of(new ProcessFigure(1, 2, "a", 0, 7, 1, "b"))).idle());
    }

    @ParameterizedTest
    @CsvSource({"cpu>9223372036854775808<, cpu>18446744073709551616<", "cpu>9223372036854775808<, cpu>-1<",
        "cpu>9223372036854775808<, cpu>+1<", "cpu>9223372036854775808<, cpu><",
        "cpu>9223372036854775808<, cpu>1.5<", "disk>12345<, disk>\u0661<", "id>4711<, id>4294967296<",
        "id>4711<, id>x<", "name>, nom>", "user_name, username"})
    void whatIsMissingOrNoNumberIsSaidSo(String from, String to) {
        String bad = PROCESS.replace(from, to);
        assertFalse(bad.equals(PROCESS));
        ConsoleException e = assertThrows(ConsoleException.class,
                () -> parse("<timestamp>1</timestamp>" + bad));
        assertEquals(ExitCodes.UNUSABLE, e.exitCode());
    }

    @Test
    void aMissingTimestampIsSaidSo() {
        assertThrows(ConsoleException.class, () -> parse(PROCESS));
    }
}
