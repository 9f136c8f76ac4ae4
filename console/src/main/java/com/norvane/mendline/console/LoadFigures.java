package com.norvane.mendline.console;

import java.math.BigDecimal;
import java.util.EnumMap;
import java.util.Map;
import org.w3c.dom.Element;

/**
 * The answer to one LbMetrics request.
 *
 * @param figures as the library writes them, but always with a point
 */
record LoadFigures(Map<Kind, String> figures) {

    /** The figures, with what they really are: the name of the last promises something else. */
    enum Kind {
        CPU("cpuUsage", "CPU", "%"),
        MEMORY("memUsage", "memory", "%"),
        READ("diskRead", "disk read", "ms each"),
        WRITE("diskWrite", "disk write", "ms each"),
        RATE("diskQueue", "disk rate", "reads and writes per s");

        private final String element;
        private final String label;
        private final String unit;

        Kind(String element, String label, String unit) {
            this.element = element;
            this.label = label;
            this.unit = unit;
        }

        String element() {
            return element;
        }

        String label() {
            return label;
        }

        String unit() {
            return unit;
        }
    }

    LoadFigures {
        figures = Map.copyOf(figures);
    }

    static LoadFigures ask(Connection connection) {
        return of(connection.ask(Request.of("LbMetrics")));
    }

    static LoadFigures of(Answer answer) {
        Element load = answer.expect("LB");
        Map<Kind, String> figures = new EnumMap<>(Kind.class);
        for (Kind kind : Kind.values()) {
            String text = Fields.text(load, kind.element());
            // No zero in front, so that it is a number in JSON as it stands. The library writes the
            // decimal sign of its process's locale.
            if (!text.matches("-?(?:0|[1-9][0-9]{0,399})(?:[.,\u066B][0-9]{1,20})?|-?nan|-?inf")) {
                throw Fields.noNumber(kind.element(), text);
            }
            figures.put(kind, text.replaceFirst("[,\u066B]", "."));
        }
        return new LoadFigures(figures);
    }

    /** Null for nan and for an infinite figure. */
    BigDecimal number(Kind kind) {
        String text = figures.get(kind);
        return Character.isDigit(text.charAt(text.length() - 1)) ? new BigDecimal(text) : null;
    }

    boolean infinite(Kind kind) {
        return figures.get(kind).endsWith("inf");
    }
}
