package com.norvane.mendline.console;

import java.math.BigDecimal;
import java.math.RoundingMode;
import java.util.ArrayList;
import java.util.List;

/** Load figures for people and for programs. */
final class LoadText {

    private static final BigDecimal LONG = BigDecimal.TEN.pow(9);

    private LoadText() {
    }

    /** One line for each figure, with its unit. */
    static List<String> lines(LoadFigures figures) {
        int label = 0;
        int value = 0;
        for (LoadFigures.Kind kind : LoadFigures.Kind.values()) {
            label = Math.max(label, kind.label().length());
            value = Math.max(value, value(figures, kind).length());
        }
        List<String> lines = new ArrayList<>();
        for (LoadFigures.Kind kind : LoadFigures.Kind.values()) {
            lines.add(DisplayWidth.padRight(kind.label(), label) + "  "
                    + DisplayWidth.padLeft(value(figures, kind), value) + " " + kind.unit());
        }
        return lines;
    }

    private static String value(LoadFigures figures, LoadFigures.Kind kind) {
        BigDecimal number = figures.number(kind);
        if (number == null) {
            return figures.infinite(kind) ? figures.figures().get(kind) : "-";
        }
        return number.abs().compareTo(LONG) >= 0 ? HumanUnits.scientific(number)
                : number.setScale(2, RoundingMode.HALF_UP).toPlainString();
    }

    /** One line; keys are the library's element names, and null stands for what is no number. */
    static String json(LoadFigures figures) {
        StringBuilder json = new StringBuilder("{");
        for (LoadFigures.Kind kind : LoadFigures.Kind.values()) {
            json.append(json.length() == 1 ? "" : ",").append('"').append(kind.element())
                    .append("\":").append(figures.number(kind) == null ? "null"
                            : figures.figures().get(kind));
        }
        return json.append('}').toString();
    }
}
