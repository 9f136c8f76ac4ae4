package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import org.junit.jupiter.api.Test;

class ProcessTableTest {

    private static final long NOW = 1_700_000_000;

    private static final List<ProcessFigure> HOSTILE = List.of(
            new ProcessFigure(4711, NOW - 90, "xclock", 3, 4_096_000, 12_345, "alice"),
            new ProcessFigure(Integer.MAX_VALUE, 0, "\u001b[2J\u202e名前名前名前名前", -1, -1, -1,
                    "\u0007\u202e名前名前名前名前"),
            new ProcessFigure(Integer.MIN_VALUE, -1, "x".repeat(500), ProcessFigure.NO_FIGURE, 0, 0,
                    ""),
            new ProcessFigure(1, NOW + 50, "", 0, 1023, 1, "a-user-name-that-is-far-too-long"));

    @Test
    void everyLineFitsEveryWidth() {
        for (int width = 40; width <= 200; width++) {
            List<String> lines = new ProcessTable(width, NOW).render(HOSTILE);
            assertEquals(HOSTILE.size() + 1, lines.size());
            for (String line : lines) {
                assertTrue(DisplayWidth.of(line) <= width, width + ": " + line);
                assertTrue(line.codePoints().allMatch(TerminalText::isPlain), line);
            }
        }
    }

    @Test
    void theNameAlwaysHasRoomOnOrdinaryFigures() {
        for (int width = 40; width <= 200; width++) {
            String line = new ProcessTable(width, NOW).render(HOSTILE.subList(0, 1)).get(1);
            assertTrue(line.endsWith("  xclock"), width + ": " + line);
        }
    }

    @Test
    void aWideTableHasAllColumns() {
        assertEquals(List.of(
                " PID  USER   CPU%      MEM  DISK/TICK    AGE  NAME",
                "4711  alice     3  3.9 MiB   12.1 KiB  1m30s  xclock"),
                new ProcessTable(120, NOW).render(HOSTILE.subList(0, 1)));
    }

    @Test
    void aNarrowTableGivesUpTheLeastWantedColumnsFirst() {
        String medium = new ProcessTable(57, NOW).render(HOSTILE.subList(0, 1)).get(0);
        assertFalse(medium.contains("AGE"));
        assertTrue(medium.contains("USER"));
        assertEquals(" PID  CPU%      MEM  DISK/TICK  NAME",
                new ProcessTable(44, NOW).render(HOSTILE.subList(0, 1)).get(0));
        assertEquals(" PID  CPU%      MEM  NAME",
                new ProcessTable(40, NOW).render(HOSTILE.subList(0, 1)).get(0));
    }

    @Test
    void numbersAreUnsignedAndNoFigureIsADash() {
        List<String> lines = new ProcessTable(200, NOW).render(HOSTILE);
        assertTrue(lines.get(2).contains("18446744073709551615"), lines.get(2));
        assertTrue(lines.get(2).contains("16.0 EiB"), lines.get(2));
        assertFalse(lines.get(3).contains("9223372036854775808"), lines.get(3));
        assertTrue(lines.get(3).matches("-2147483648  - +-  +0 B +0 B +-  x+…"), lines.get(3));
    }

    @Test
    void aClockThatWasSetBackGivesNoNegativeAge() {
        assertTrue(new ProcessTable(200, NOW).render(HOSTILE).get(4).contains("  0s  "));
    }

    @Test
    void anEmptyListIsATitle() {
        assertEquals(1, new ProcessTable(80, NOW).render(List.of()).size());
    }
}
