package com.norvane.mendline.console;

import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;

/** Draws a history as one {@link Sparkline} for each figure, to be taken in at a glance. */
final class HistoryPlot {

    private static final String GAP = "  ";

    private final int width;
    private final boolean unicode;

    /** @param width columns of the terminal; no line is wider
     *  @param unicode whether the terminal can show block characters */
    HistoryPlot(int width, boolean unicode) {
        this.width = width;
        this.unicode = unicode;
    }

    /**
     * A heading and one line for each figure, with its smallest and largest value. The oldest record
     * is left out: it is an average since boot or may be one, and comparing it would mislead.
     */
    List<String> render(History history) {
        List<HistoryRecord> records =
                history.records().subList(Math.min(1, history.records().size()),
                        history.records().size());
        List<String> lines = new ArrayList<>();
        if (records.isEmpty()) {
            lines.add(DisplayWidth.fit("no plot yet: it takes a second record", width));
            return lines;
        }
        List<Sparkline> plots = new ArrayList<>();
        for (HistoryColumn column : HistoryColumn.values()) {
            // Not toList of a stream of Optional: a record without the figure keeps its place.
            plots.add(new Sparkline(records.stream().map(r -> r.get(column))
                    .collect(Collectors.toCollection(ArrayList::new)), unicode));
        }
        int title = widest(List.of(HistoryColumn.values()).stream().map(HistoryColumn::title)
                .toList());
        int range = widest(plots.stream().map(HistoryPlot::range).toList());
        int room = Math.max(1, width - title - range - 2 * GAP.length());
        int group = (records.size() + room - 1) / room;

        lines.add("last " + history.age(records.get(0)) + ", newest right");
        if (group > 1) {
            lines.add("each mark the largest of " + group + " records");
        }
        for (HistoryColumn column : HistoryColumn.values()) {
            Sparkline plot = plots.get(column.ordinal());
            lines.add(DisplayWidth.padRight(column.title(), title) + GAP + plot.draw(group) + GAP
                    + range(plot));
        }
        if (plots.stream().anyMatch(Sparkline::hasImpossible)) {
            lines.add(Sparkline.BEYOND + " a counter went backwards");
        }
        return lines.stream().map(line -> DisplayWidth.fit(line, width)).toList();
    }

    private static String range(Sparkline plot) {
        if (plot.smallest().isEmpty()) {
            return "-";
        }
        String smallest = HumanUnits.count(plot.smallest().orElseThrow());
        String largest = HumanUnits.count(plot.largest().orElseThrow());
        return smallest.equals(largest) ? smallest : smallest + ".." + largest;
    }

    private static int widest(List<String> texts) {
        return texts.stream().mapToInt(DisplayWidth::of).max().orElse(0);
    }
}
