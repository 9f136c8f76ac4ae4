package com.norvane.mendline.console;

/**
 * What all JSON of this client has in common. What a terminal would not show plainly is escaped, so a
 * name cannot do harm there either and no character is lost.
 */
final class Json {

    private Json() {
    }

    static String string(String text) {
        StringBuilder quoted = new StringBuilder("\"");
        text.codePoints().forEach(c -> {
            if (c == '"' || c == '\\') {
                quoted.append('\\').appendCodePoint(c);
            } else if (TerminalText.isPlain(c)) {
                quoted.appendCodePoint(c);
            } else {
                for (char unit : Character.toChars(c)) {
                    quoted.append(String.format("\\u%04x", (int) unit));
                }
            }
        });
        return quoted.append('"').toString();
    }
}
