package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.util.ArrayList;
import java.util.EnumMap;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.Test;

class HistoryTableTest {

    /** Figures in the order of the columns, with blanks between them; a dash is no figure. */
    static HistoryRecord record(long timestamp, String figures) {
        Map<HistoryColumn, BigInteger> map = new EnumMap<>(HistoryColumn.class);
        String[] words = figures.split(" ");
        for (HistoryColumn column : HistoryColumn.values()) {
            if (!words[column.ordinal()].equals("-")) {
                map.put(column, new BigInteger(words[column.ordinal()]));
            }
        }
        return new HistoryRecord(timestamp, map);
    }

    static History full(String figures) {
        List<HistoryRecord> records = new ArrayList<>();
        for (int i = 0; i < History.MOST; i++) {
            records.add(record(1000 + 30L * i, figures));
        }
        return new History(records);
    }

    private static final History ORDINARY = new History(List.of(
            record(86_400, "62 19 31 42 0 - 0 0"), record(86_430, "100 43 3 17 2 -18 - -")));

    @Test
    void aWideTableHasAllColumns() {
        assertEquals(List.of(
                " AGO   CPU%  MEM%  READ/s  WRITE/s  DISK ms  RTT ms  UCPU%  UMEM%",
                "0:30*    62    19      31       42        0       -      0      0",
                "0:00    100    43       3       17        2     -18      -      -",
                "* average since boot, not comparable"), new HistoryTable(200).render(ORDINARY));
    }

    @Test
    void aNarrowTableGivesUpTheLeastWantedColumnsFirst() {
        assertEquals(8, columns(65));
        assertEquals(7, columns(64));
        assertEquals(" AGO   CPU%  MEM%  READ/s  WRITE/s  RTT ms  UCPU%  UMEM%",
                new HistoryTable(64).render(ORDINARY).get(0));
        assertEquals(" AGO   CPU%  MEM%  RTT ms  UCPU%  UMEM%",
                new HistoryTable(40).render(ORDINARY).get(0));
        assertEquals("0:30*    62    19       -      0      0",
                new HistoryTable(40).render(ORDINARY).get(1));
    }

    private static int columns(int width) {
        return new HistoryTable(width).render(ORDINARY).get(0).trim().split(" {2,}").length - 1;
    }

    @Test
    void everyLineFitsEveryWidthAndNoNumberIsCut() {
        for (History history : List.of(ORDINARY, full("12 43 3 17 2 18 4 6"),
                full("18446744073709551615 999999 1000000 42 0 -9223372036854775807 - 7"))) {
            for (int width = 40; width <= 200; width++) {
                List<String> lines = new HistoryTable(width).render(history);
                assertEquals(history.records().size() + 2, lines.size());
                for (String line : lines) {
                    assertTrue(DisplayWidth.of(line) <= width, width + ": " + line);
                    assertTrue(line.chars().allMatch(c -> c < 128), line);
                }
                assertTrue(lines.get(0).contains("UCPU%"), lines.get(0));
            }
        }
    }

    @Test
    void hugeNumbersAreShort() {
        String line = new HistoryTable(200).render(full(
                "18446744073709551615 43 999999 1000000 2 -9223372036854775807 4 6")).get(1);
        assertEquals("14:30*  1.84e19    43  999999   1.00e6        2  -9.22e18      4      6",
                line);
    }

    @Test
    void aFullHistoryDoesNotClaimToBeginWithTheFirst() {
        List<String> lines = new HistoryTable(80).render(full("12 43 3 17 2 18 4 6"));
        assertTrue(lines.get(1).startsWith("14:30*"), lines.get(1));
        assertTrue(lines.get(2).startsWith("14:00 "), lines.get(2));
        assertEquals("* may be an average since boot", lines.get(31));
    }
}
