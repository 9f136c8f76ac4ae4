package com.norvane.mendline.console;

import java.util.List;

/**
 * Process figures as one line of JSON. Keys are the library's element names; a missing CPU figure is
 * null. What a terminal would not show plainly is escaped, so a name cannot do harm there either and
 * no character is lost.
 */
final class ProcessJson {

    private ProcessJson() {
    }

    static String render(long timestamp, List<ProcessFigure> processes) {
        StringBuilder json = new StringBuilder("{\"timestamp\":")
                .append(Long.toUnsignedString(timestamp)).append(",\"processes\":[");
        String separator = "";
        for (ProcessFigure process : processes) {
            json.append(separator);
            separator = ",";
            json.append("{\"id\":").append(process.id())
                    .append(",\"create_time\":").append(Long.toUnsignedString(process.createTime()))
                    .append(",\"name\":").append(string(process.name()))
                    .append(",\"cpu\":").append(
                            process.hasCpu() ? Long.toUnsignedString(process.cpu()) : "null")
                    .append(",\"mem\":").append(Long.toUnsignedString(process.mem()))
                    .append(",\"disk\":").append(Long.toUnsignedString(process.disk()))
                    .append(",\"user_name\":").append(string(process.userName())).append('}');
        }
        return json.append("]}").toString();
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
