package com.norvane.mendline.console;

import java.math.BigInteger;
import java.util.Optional;
import org.w3c.dom.Element;
import org.w3c.dom.Node;

/** Reads the child elements of an answer's element, and says so where one is not what it should be. */
final class Fields {

    private Fields() {
    }

    static Optional<Element> child(Element parent, String name) {
        for (Node node = parent.getFirstChild(); node != null; node = node.getNextSibling()) {
            if (node instanceof Element child && child.getTagName().equals(name)) {
                return Optional.of(child);
            }
        }
        return Optional.empty();
    }

    static Optional<String> find(Element parent, String name) {
        return child(parent, name).map(Element::getTextContent);
    }

    static String text(Element parent, String name) {
        return find(parent, name).orElseThrow(() -> Answer.unusable("the library's answer has a "
                + parent.getTagName() + " element without " + name));
    }

    static int id(Element parent) {
        String text = text(parent, "id");
        try {
            return Integer.parseInt(text);
        } catch (NumberFormatException e) {
            throw noNumber("id", text);
        }
    }

    /** An unsigned number of 64 bits, whose upper half Java shows as negative. */
    static long unsigned(Element parent, String name) {
        return unsigned(name, text(parent, name)).longValue();
    }

    static BigInteger unsigned(String name, String text) {
        return whole(name, text, "[0-9]{1,20}", 64);
    }

    static BigInteger signed(String name, String text) {
        return whole(name, text, "-?[0-9]{1,19}", 63);
    }

    /** Java's own parsers would let a plus sign and other scripts' digits pass. */
    private static BigInteger whole(String name, String text, String pattern, int bits) {
        if (!text.matches(pattern)) {
            throw noNumber(name, text);
        }
        BigInteger value = new BigInteger(text);
        if (value.bitLength() > bits) {
            throw noNumber(name, text);
        }
        return value;
    }

    static ConsoleException noNumber(String name, String text) {
        return Answer.unusable("the library's answer has no valid number in " + name + ": " + text);
    }
}
