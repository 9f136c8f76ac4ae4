package com.norvane.mendline.console;

import java.util.ArrayList;
import java.util.List;
import java.util.function.Function;

/** Lays process figures out in columns that fit a terminal. */
final class ProcessTable {

    private static final int NARROWEST_NAME = 12;
    private static final int WIDEST_USER = 12;

    private record Column(String title, boolean right, int widest,
            Function<ProcessFigure, String> cell) {
    }

    private final int width;
    private final long now;

    /**
     * @param width columns of the terminal; no line is wider
     * @param now seconds since the epoch, for ages
     */
    ProcessTable(int width, long now) {
        this.width = width;
        this.now = now;
    }

    /** A title line and one line for each process, in the order given. */
    List<String> render(List<ProcessFigure> processes) {
        Column user = new Column("USER", false, WIDEST_USER,
                p -> p.userName().isEmpty() ? "-" : TerminalText.line(p.userName()));
        Column disk = new Column("DISK/TICK", true, 20, p -> HumanUnits.bytes(p.disk()));
        Column age = new Column("AGE", true, 20, p -> p.age(now).orElse("-"));
        List<Column> columns = new ArrayList<>(List.of(
                new Column("PID", true, 20, p -> Long.toString(p.id())),
                user,
                new Column("CPU%", true, 20,
                        p -> p.hasCpu() ? Long.toUnsignedString(p.cpu()) : "-"),
                new Column("MEM", true, 20, p -> HumanUnits.bytes(p.mem())),
                disk,
                age));
        List<List<String>> cells = cells(columns, processes);
        // The name is what people look for, so the others make room for it.
        for (Column column : List.of(age, user, disk)) {
            if (width - columnsWidth(columns, cells) >= NARROWEST_NAME) {
                break;
            }
            cells.remove(columns.indexOf(column));
            columns.remove(column);
        }

        List<String> lines = new ArrayList<>();
        for (int row = 0; row <= processes.size(); row++) {
            StringBuilder line = new StringBuilder();
            for (int i = 0; i < columns.size(); i++) {
                String cell = cells.get(i).get(row);
                int columnWidth = columnWidth(cells.get(i));
                line.append(columns.get(i).right() ? DisplayWidth.padLeft(cell, columnWidth)
                        : DisplayWidth.padRight(cell, columnWidth)).append("  ");
            }
            line.append(row == 0 ? "NAME" : TerminalText.line(processes.get(row - 1).name()));
            lines.add(DisplayWidth.fit(line.toString(), width));
        }
        return lines;
    }

    private static List<List<String>> cells(List<Column> columns, List<ProcessFigure> processes) {
        List<List<String>> cells = new ArrayList<>();
        for (Column column : columns) {
            List<String> texts = new ArrayList<>();
            texts.add(column.title());
            for (ProcessFigure process : processes) {
                texts.add(DisplayWidth.fit(column.cell().apply(process), column.widest()));
            }
            cells.add(texts);
        }
        return cells;
    }

    private static int columnsWidth(List<Column> columns, List<List<String>> cells) {
        return 2 * columns.size() + cells.stream().mapToInt(ProcessTable::columnWidth).sum();
    }

    private static int columnWidth(List<String> cells) {
        return cells.stream().mapToInt(DisplayWidth::of).max().orElse(0);
    }
}
