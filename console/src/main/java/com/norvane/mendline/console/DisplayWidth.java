package com.norvane.mendline.console;

/**
 * How many terminal columns a text takes. The table knows the large blocks only; a terminal that
 * thinks otherwise about a rare character shifts one line, no more.
 */
final class DisplayWidth {

    private static final String ELLIPSIS = "…";

    private static final int[][] WIDE = {
        {0x1100, 0x115F}, {0x2E80, 0x303E}, {0x3041, 0x4DBF}, {0x4E00, 0xA4CF}, {0xA960, 0xA97F},
        {0xAC00, 0xD7A3}, {0xF900, 0xFAFF}, {0xFE30, 0xFE6F}, {0xFF01, 0xFF60}, {0xFFE0, 0xFFE6},
        {0x16FE0, 0x1B2FF}, {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FF}, {0x1F900, 0x1F9FF},
        {0x1FA70, 0x1FAFF}, {0x20000, 0x3FFFD},
    };

    private DisplayWidth() {
    }

    static int of(String text) {
        return text.codePoints().map(DisplayWidth::of).sum();
    }

    private static int of(int c) {
        int type = Character.getType(c);
        if (type == Character.NON_SPACING_MARK || type == Character.ENCLOSING_MARK
                || c >= 0x1160 && c <= 0x11FF) {
            return 0;
        }
        for (int[] range : WIDE) {
            if (c >= range[0] && c <= range[1]) {
                return 2;
            }
        }
        return 1;
    }

    /** The text, or its beginning and an ellipsis, in at most {@code width} columns. */
    static String fit(String text, int width) {
        if (of(text) <= width) {
            return text;
        }
        if (width < 1) {
            return "";
        }
        StringBuilder kept = new StringBuilder();
        int columns = 0;
        for (int c : text.codePoints().toArray()) {
            if (columns + of(c) > width - 1) {
                break;
            }
            columns += of(c);
            kept.appendCodePoint(c);
        }
        return kept + ELLIPSIS;
    }

    static String padLeft(String text, int width) {
        return " ".repeat(Math.max(0, width - of(text))) + text;
    }

    static String padRight(String text, int width) {
        return text + " ".repeat(Math.max(0, width - of(text)));
    }
}
