package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;

class HistoryPlotTest {

    private static final History SHORT = new History(List.of(
            HistoryTableTest.record(1000, "99 99 99 99 99 99 99 99"),
            HistoryTableTest.record(1030, "0 43 3 - 2 - 4 18446744073709551615"),
            HistoryTableTest.record(1060, "100 43 0 7 - - 5 6")));

    @Test
    void hasALineForEachFigureAndLeavesTheOldestOut() {
        assertEquals(List.of(
                "last 0:30, newest right",
                "CPU%     ▁█  0..100",
                "MEM%     ▄▄  43",
                "READ/s   █▁  0..3",
                "WRITE/s   ▄  7",
                "DISK ms  ▄   2",
                "RTT ms       -",
                "UCPU%    ▁█  4..5",
                "UMEM%    !▄  6",
                "! a counter went backwards"), new HistoryPlot(80, true).render(SHORT));
    }

    @Test
    void hasAnAsciiForm() {
        List<String> lines = new HistoryPlot(80, false).render(SHORT);
        assertEquals("CPU%     _#  0..100", lines.get(1));
        assertTrue(String.join("", lines).chars().allMatch(c -> c < 128));
    }

    @Test
    void oneRecordIsNoPlot() {
        assertEquals(List.of("no plot yet: it takes a second record"),
                new HistoryPlot(80, true).render(new History(SHORT.records().subList(0, 1))));
    }

    @Test
    void everyLineFitsEveryWidthAndEveryRecordIsInAMark() {
        List<HistoryRecord> records = new ArrayList<>();
        for (int i = 0; i < History.MOST; i++) {
            records.add(HistoryTableTest.record(1000 + 30L * i, "12 " + i
                    + " 999999999999 17 2 -999999999999 4 18446744073709551615"));
        }
        for (int width = 40; width <= 200; width++) {
            List<String> lines = new HistoryPlot(width, true).render(new History(records));
            for (String line : lines) {
                assertTrue(DisplayWidth.of(line) <= width, width + ": " + line);
            }
            String line = lines.stream().filter(l -> l.startsWith("MEM%")).findFirst()
                    .orElseThrow();
            assertTrue(line.endsWith("█  1..29"), width + ": " + line);
        }
    }

    @Test
    void whatDoesNotFitIsGroupedAndSaidSo() {
        History history = HistoryTableTest.full("12 43 3 17 2 18 4 1000000");
        // 7 for the titles, 6 for the ranges and 4 between leave 29, one for each record.
        List<String> wide = new HistoryPlot(46, true).render(history);
        assertEquals("CPU%     " + "▄".repeat(29) + "  12", wide.get(1));
        List<String> narrow = new HistoryPlot(45, true).render(history);
        assertEquals("each mark the largest of 2 records", narrow.get(1));
        assertEquals("CPU%     " + "▄".repeat(15) + "  12", narrow.get(2));
    }
}
