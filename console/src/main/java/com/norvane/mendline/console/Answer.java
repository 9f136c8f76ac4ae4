package com.norvane.mendline.console;

import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import org.w3c.dom.Element;
import org.w3c.dom.Node;
import org.xml.sax.SAXException;

/**
 * One answer of the library, taken apart into its top-level elements. An answer is not a document:
 * it has any number of roots, none included.
 */
final class Answer {

    private static final String DECLARATION = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";
    private static final String FALLBACK = "<ERROR>Failed to do mendline operation</ERROR>";

    private final List<Element> elements;

    private Answer(List<Element> elements) {
        this.elements = elements;
    }

    /**
     * Reads an answer as the library gave it. Process names reach an answer unfiltered, so characters
     * that XML forbids are replaced by U+FFFD first.
     *
     * @throws ConsoleException with {@link ExitCodes#UNUSABLE} if the answer cannot be understood
     */
    static Answer parse(String raw) {
        if (raw == null || raw.isEmpty()) {
            throw unusable("the library gave no answer");
        }
        String body = raw;
        if (raw.startsWith(DECLARATION)) {
            body = raw.substring(DECLARATION.length());
        } else if (!raw.equals(FALLBACK)) {
            throw unusable("the library's answer does not begin with its XML declaration");
        }
        try {
            Element root = StrictXml.parse("<answer>" + XmlCharacters.clean(body) + "</answer>")
                    .getDocumentElement();
            List<Element> elements = new ArrayList<>();
            for (Node node = root.getFirstChild(); node != null; node = node.getNextSibling()) {
                if (node instanceof Element element) {
                    elements.add(element);
                } else if (!node.getTextContent().isBlank()) {
                    throw unusable("the library's answer has text outside its elements");
                }
            }
            return new Answer(List.copyOf(elements));
        } catch (SAXException e) {
            throw unusable("the library's answer cannot be read as XML: " + e.getMessage());
        }
    }

    List<Element> elements() {
        return elements;
    }

    Optional<Element> first(String name) {
        return elements.stream().filter(e -> e.getTagName().equals(name)).findFirst();
    }

    /** The text of the first ERROR element, which is how the library says that it could not. */
    Optional<String> error() {
        return first("ERROR").map(Element::getTextContent);
    }

    /**
     * The element that this operation is answered with.
     *
     * @throws ConsoleException with the library's own words if it answered with an error, or with
     *     {@link ExitCodes#UNUSABLE} if the element is not there
     */
    Element expect(String name) {
        error().ifPresent(text -> {
            throw new ConsoleException(ExitCodes.LIBRARY_ERROR, text);
        });
        return first(name).orElseThrow(
                () -> unusable("the library's answer has no " + name + " element"));
    }

    /** Whether the answer is this one INFO text and nothing else. */
    boolean isInfo(String text) {
        return elements.size() == 1 && elements.get(0).getTagName().equals("INFO")
                && elements.get(0).getTextContent().equals(text);
    }

    static ConsoleException unusable(String message) {
        return new ConsoleException(ExitCodes.UNUSABLE, message);
    }
}
