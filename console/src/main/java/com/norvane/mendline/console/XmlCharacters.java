package com.norvane.mendline.console;

/** What XML 1.0 allows as a character. */
final class XmlCharacters {

    private XmlCharacters() {
    }

    /** False also for surrogates, which are what {@link String#codePoints} gives for unpaired ones. */
    static boolean allowed(int c) {
        return c == '\t' || c == '\n' || c == '\r'
                || c >= 0x20 && c <= 0xD7FF
                || c >= 0xE000 && c <= 0xFFFD
                || c >= 0x10000 && c <= Character.MAX_CODE_POINT;
    }

    /** Puts U+FFFD in place of every character that no XML 1.0 parser would take. */
    static String clean(String text) {
        StringBuilder cleaned = new StringBuilder(text.length());
        text.codePoints().forEach(c -> cleaned.appendCodePoint(allowed(c) ? c : 0xFFFD));
        return cleaned.toString();
    }
}
