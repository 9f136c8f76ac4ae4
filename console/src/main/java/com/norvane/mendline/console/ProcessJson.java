package com.norvane.mendline.console;

import java.util.List;

/**
 * Process figures as one line of JSON. Keys are the library's element names; a missing CPU figure is
 * null.
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
                    .append(",\"name\":").append(Json.string(process.name()))
                    .append(",\"cpu\":").append(
                            process.hasCpu() ? Long.toUnsignedString(process.cpu()) : "null")
                    .append(",\"mem\":").append(Long.toUnsignedString(process.mem()))
                    .append(",\"disk\":").append(Long.toUnsignedString(process.disk()))
                    .append(",\"user_name\":").append(Json.string(process.userName())).append('}');
        }
        return json.append("]}").toString();
    }
}
