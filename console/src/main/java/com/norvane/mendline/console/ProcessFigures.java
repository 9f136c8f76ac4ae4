package com.norvane.mendline.console;

import java.util.ArrayList;
import java.util.List;
import org.w3c.dom.Element;
import org.w3c.dom.Node;

/**
 * The answer to one ProcessMetrics request: the figures of one tick.
 *
 * @param timestamp seconds since boot of the tick, unsigned; 0 before the first
 * @param processes in the library's order, which means nothing
 */
record ProcessFigures(long timestamp, List<ProcessFigure> processes) {

    /** @throws ConsoleException if there is no answer, or none that can be understood */
    static ProcessFigures ask(Connection connection) {
        return of(connection.ask(Request.of("ProcessMetrics")));
    }

    static ProcessFigures of(Answer answer) {
        Element metrics = answer.expect("processMetrics");
        List<ProcessFigure> processes = new ArrayList<>();
        for (Node node = metrics.getFirstChild(); node != null; node = node.getNextSibling()) {
            if (node instanceof Element element && element.getTagName().equals("process")) {
                processes.add(process(element));
            }
        }
        return new ProcessFigures(Fields.unsigned(metrics, "timestamp"), List.copyOf(processes));
    }

    boolean none() {
        return timestamp == 0;
    }

    /** Whether these look like a first tick, which has nothing to compare with and reads 0. */
    boolean idle() {
        return processes.stream().allMatch(p -> p.cpu() == 0 && p.disk() == 0);
    }

    private static ProcessFigure process(Element element) {
        return new ProcessFigure(Fields.id(element), Fields.unsigned(element, "create_time"),
                Fields.text(element, "name"), Fields.unsigned(element, "cpu"),
                Fields.unsigned(element, "mem"), Fields.unsigned(element, "disk"),
                Fields.text(element, "user_name"));
    }
}
