package com.norvane.mendline.console;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import org.w3c.dom.Element;
import org.w3c.dom.Node;

/**
 * The answer to one HistoricalMetrics request.
 *
 * @param records oldest first; none before the first tick
 */
record History(List<HistoryRecord> records) {

    /** How many the library keeps; the oldest goes when there is one more. */
    static final int MOST = 30;

    private static final String UNKNOWN_USER = "Failed to get historical metrics";

    /**
     * @throws ConsoleException if there is no such user, or the answer cannot be understood
     * @throws IllegalArgumentException if a request cannot carry one of the texts
     */
    static History ask(Connection connection, String userName, String display) {
        Answer answer = connection.ask(Request.of("HistoricalMetrics")
                .with("userName", userName).with("display", display));
        if (answer.error().filter(UNKNOWN_USER::equals).isPresent()) {
            // The library has one reason for this, and does not say it.
            throw new ConsoleException(ExitCodes.LIBRARY_ERROR,
                    UNKNOWN_USER + ": this host knows no user " + userName);
        }
        return of(answer);
    }

    static History of(Answer answer) {
        // Before the first tick there is no element at all.
        if (answer.elements().isEmpty()) {
            return new History(List.of());
        }
        Element metrics = answer.expect("historicalMetrics");
        List<HistoryRecord> records = new ArrayList<>();
        for (Node node = metrics.getFirstChild(); node != null; node = node.getNextSibling()) {
            if (node instanceof Element element && element.getTagName().equals("metric")) {
                records.add(HistoryRecord.of(element));
            }
        }
        return new History(List.copyOf(records));
    }

    boolean none() {
        return records.isEmpty();
    }

    HistoryRecord newest() {
        return records.get(records.size() - 1);
    }

    /**
     * Whether the oldest record is surely the library's first, an average since boot. When there are
     * as many as the library keeps, an older one may have gone.
     */
    boolean beginsWithFirst() {
        return records.size() < MOST;
    }

    boolean has(HistoryColumn... columns) {
        return records.stream()
                .anyMatch(r -> Arrays.stream(columns).anyMatch(c -> r.get(c) != null));
    }

    /**
     * How long before the newest record this one was made. Not how long ago: the time since boot on
     * the library's clock is known of ticks only.
     */
    String age(HistoryRecord record) {
        long seconds = newest().timestamp() - record.timestamp();
        return record.timestamp() == 0
                || Long.compareUnsigned(newest().timestamp(), record.timestamp()) < 0 || seconds < 0
                        ? "-" : HumanUnits.minutes(seconds);
    }
}
