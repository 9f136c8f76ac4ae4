package com.norvane.mendline.console;

/**
 * Makes text harmless for a terminal. Process and user names are chosen by whoever runs the process,
 * and a terminal obeys control characters; a reader is misled by characters that reorder or vanish.
 */
final class TerminalText {

    private TerminalText() {
    }

    /** One line: every character that is not plainly visible is written out. */
    static String line(String text) {
        return visible(text, false);
    }

    /** The same, but line feeds stay. */
    static String lines(String text) {
        return visible(text, true);
    }

    private static String visible(String text, boolean keepLineFeeds) {
        StringBuilder shown = new StringBuilder(text.length());
        text.codePoints().forEach(c -> {
            if (isPlain(c) || keepLineFeeds && c == '\n') {
                shown.appendCodePoint(c);
            } else {
                shown.append(escape(c));
            }
        });
        return shown.toString();
    }

    /** By category, so that a character that is new to us is not taken for a visible one. */
    static boolean isPlain(int c) {
        return switch (Character.getType(c)) {
            case Character.CONTROL, Character.FORMAT, Character.SURROGATE, Character.PRIVATE_USE,
                    Character.UNASSIGNED, Character.LINE_SEPARATOR,
                    Character.PARAGRAPH_SEPARATOR -> false;
            // Fillers and selectors that are letters or marks by category and show as nothing.
            default -> !(c == 0x034F || c == 0x115F || c == 0x1160 || c == 0x3164 || c == 0xFFA0
                    || c >= 0x17B4 && c <= 0x17B5 || c >= 0x180B && c <= 0x180F
                    || c >= 0xFE00 && c <= 0xFE0F || c >= 0xE0100 && c <= 0xE01EF);
        };
    }

    static String escape(int c) {
        if (c < 0x100) {
            return String.format("\\x%02x", c);
        }
        return c < 0x10000 ? String.format("\\u%04x", c) : String.format("\\u{%x}", c);
    }
}
