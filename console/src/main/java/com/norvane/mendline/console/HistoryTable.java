package com.norvane.mendline.console;

import java.math.BigInteger;
import java.util.ArrayList;
import java.util.List;

/** Lays the records of a history out in columns that fit a terminal. */
final class HistoryTable {

    private static final String GAP = "  ";
    /** Stays last; the plots below the table have all columns in any case. */
    private static final List<HistoryColumn> GIVEN_UP_FIRST = List.of(HistoryColumn.DISK_LATENCY,
            HistoryColumn.READS, HistoryColumn.WRITES, HistoryColumn.USER_MEM,
            HistoryColumn.OVERALL_MEM, HistoryColumn.ROUND_TRIP);

    private final int width;

    /** @param width columns of the terminal; no line is wider */
    HistoryTable(int width) {
        this.width = width;
    }

    /** A title line, one line for each record, oldest first, and a word on the oldest. */
    List<String> render(History history) {
        List<HistoryColumn> columns = new ArrayList<>(List.of(HistoryColumn.values()));
        List<List<String>> cells = new ArrayList<>();
        cells.add(ages(history));
        for (HistoryColumn column : columns) {
            cells.add(cells(history, column));
        }
        for (HistoryColumn column : GIVEN_UP_FIRST) {
            if (total(cells) <= width) {
                break;
            }
            cells.remove(1 + columns.indexOf(column));
            columns.remove(column);
        }

        List<String> lines = new ArrayList<>();
        for (int row = 0; row <= history.records().size(); row++) {
            List<String> line = new ArrayList<>();
            for (List<String> column : cells) {
                line.add(DisplayWidth.padLeft(column.get(row), widest(column)));
            }
            lines.add(DisplayWidth.fit(String.join(GAP, line), width));
        }
        lines.add(DisplayWidth.fit(history.beginsWithFirst() ? "* average since boot, not comparable"
                : "* may be an average since boot", width));
        return lines;
    }

    private static List<String> ages(History history) {
        List<String> cells = new ArrayList<>();
        cells.add("AGO ");
        for (HistoryRecord record : history.records()) {
            cells.add(history.age(record) + (cells.size() == 1 ? "*" : " "));
        }
        return cells;
    }

    private static List<String> cells(History history, HistoryColumn column) {
        List<String> cells = new ArrayList<>();
        cells.add(column.title());
        for (HistoryRecord record : history.records()) {
            BigInteger figure = record.get(column);
            cells.add(figure == null ? "-" : HumanUnits.count(figure));
        }
        return cells;
    }

    private static int total(List<List<String>> cells) {
        return GAP.length() * (cells.size() - 1)
                + cells.stream().mapToInt(HistoryTable::widest).sum();
    }

    private static int widest(List<String> cells) {
        return cells.stream().mapToInt(DisplayWidth::of).max().orElse(0);
    }
}
