package com.norvane.mendline.console;

/** Builds the XML of a request. The library reads child elements only, never attributes. */
final class Request {

    private final StringBuilder parameters = new StringBuilder();
    private final String opcode;

    private Request(String opcode) {
        this.opcode = opcode;
    }

    static Request of(String opcode) {
        return new Request(opcode);
    }

    /** @throws IllegalArgumentException if {@code value} has a character that XML cannot carry */
    Request with(String name, String value) {
        parameters.append('<').append(name).append('>').append(escape(value))
                .append("</").append(name).append('>');
        return this;
    }

    String toXml() {
        return "<MendlineOperation><opcode>" + escape(opcode) + "</opcode>" + parameters
                + "</MendlineOperation>";
    }

    private static String escape(String text) {
        StringBuilder escaped = new StringBuilder(text.length());
        text.codePoints().forEach(c -> {
            if (!XmlCharacters.allowed(c)) {
                throw new IllegalArgumentException(
                        "a request cannot carry the character " + TerminalText.escape(c));
            }
            switch (c) {
                case '&' -> escaped.append("&amp;");
                case '<' -> escaped.append("&lt;");
                // '>' only matters behind "]]", but nobody has to prove that here.
                case '>' -> escaped.append("&gt;");
                // A parser would turn a raw carriage return into a line feed.
                case '\r' -> escaped.append("&#13;");
                default -> escaped.appendCodePoint(c);
            }
        });
        return escaped.toString();
    }
}
