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
        return new ProcessFigures(unsigned(metrics, "timestamp"), List.copyOf(processes));
    }

    boolean none() {
        return timestamp == 0;
    }

    /** Whether these look like a first tick, which has nothing to compare with and reads 0. */
    boolean idle() {
        return processes.stream().allMatch(p -> p.cpu() == 0 && p.disk() == 0);
    }

    private static ProcessFigure process(Element element) {
        return new ProcessFigure(id(element), unsigned(element, "create_time"),
                text(element, "name"), unsigned(element, "cpu"), unsigned(element, "mem"),
                unsigned(element, "disk"), text(element, "user_name"));
    }

    private static String text(Element parent, String name) {
        for (Node node = parent.getFirstChild(); node != null; node = node.getNextSibling()) {
            if (node instanceof Element child && child.getTagName().equals(name)) {
                return child.getTextContent();
            }
        }
        throw Answer.unusable("the library's answer has a " + parent.getTagName() + " element without "
                + name);
    }

    private static long id(Element parent) {
        String text = text(parent, "id");
        try {
            return Integer.parseInt(text);
        } catch (NumberFormatException e) {
            throw noNumber("id", text);
        }
    }

    private static long unsigned(Element parent, String name) {
        String text = text(parent, name);
        // parseUnsignedLong would let a plus sign and other scripts' digits pass.
        if (!text.matches("[0-9]+")) {
            throw noNumber(name, text);
        }
        try {
            return Long.parseUnsignedLong(text);
        } catch (NumberFormatException e) {
            throw noNumber(name, text);
        }
    }

    private static ConsoleException noNumber(String name, String text) {
        return Answer.unusable("the library's answer has no valid number in " + name + ": " + text);
    }
}
