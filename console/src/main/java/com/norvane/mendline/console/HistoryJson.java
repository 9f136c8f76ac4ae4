package com.norvane.mendline.console;

import java.math.BigInteger;

/**
 * A history as one line of JSON. Keys are the names of the library's parameters and elements; every
 * record has all of them, with null for a figure that there is not.
 */
final class HistoryJson {

    private HistoryJson() {
    }

    static String render(String userName, String display, History history) {
        StringBuilder json = new StringBuilder("{\"userName\":").append(Json.string(userName))
                .append(",\"display\":").append(Json.string(display)).append(",\"metrics\":[");
        String separator = "";
        for (HistoryRecord record : history.records()) {
            json.append(separator).append("{\"timestamp\":")
                    .append(Long.toUnsignedString(record.timestamp()));
            separator = ",";
            for (HistoryColumn column : HistoryColumn.values()) {
                BigInteger figure = record.get(column);
                json.append(",\"").append(column.element()).append("\":").append(figure);
            }
            json.append('}');
        }
        return json.append("]}").toString();
    }
}
