package com.norvane.mendline.console;

import java.math.BigInteger;
import java.util.EnumMap;
import java.util.Map;
import org.w3c.dom.Element;

/**
 * One tick of a history.
 *
 * @param timestamp seconds since boot, unsigned; 0 if the library could not tell
 * @param figures those that there are; what the answer lacks and what it marks as no figure is absent
 */
record HistoryRecord(long timestamp, Map<HistoryColumn, BigInteger> figures) {

    HistoryRecord {
        figures = Map.copyOf(figures);
    }

    static HistoryRecord of(Element metric) {
        Map<HistoryColumn, BigInteger> figures = new EnumMap<>(HistoryColumn.class);
        for (HistoryColumn column : HistoryColumn.values()) {
            String text = column.mayBeAbsent() ? Fields.find(metric, column.element()).orElse(null)
                    : Fields.text(metric, column.element());
            BigInteger figure = text == null ? null : column.parse(text);
            if (figure != null) {
                figures.put(column, figure);
            }
        }
        return new HistoryRecord(Fields.unsigned(metric, "timestamp"), figures);
    }

    /** Null if there is none. */
    BigInteger get(HistoryColumn column) {
        return figures.get(column);
    }
}
