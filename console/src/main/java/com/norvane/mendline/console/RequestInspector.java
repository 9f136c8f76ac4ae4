package com.norvane.mendline.console;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.w3c.dom.Document;
import org.w3c.dom.Element;
import org.w3c.dom.Node;
import org.w3c.dom.Text;
import org.xml.sax.SAXException;

/**
 * Tells what a request may do to the library.
 *
 * <p>The library's parser is more lenient than ours: it lets a wrong closing tag pass, and it joins
 * the text before and after a comment, a CDATA section or a child element. So a request that ours
 * cannot read is not harmless, and a request that it can read has more than one reading.
 */
final class RequestInspector {

    private static final List<String> TABLE_OPCODES = List.of("ClearShm", "ProtocolInfo");
    private static final String START = "StartCollector";
    private static final String STOP = "StopCollector";

    private static final Pattern LEADING_NUMBER = Pattern.compile("[ \\t-\\r]*([+-]?[0-9]+)");
    private static final Pattern REFERENCE =
            Pattern.compile("&(?:#x([0-9A-Fa-f]+)|#([0-9A-Fa-f]+)|(amp|lt|gt|quot|apos));");

    private RequestInspector() {
    }

    static RequestReading read(String request) {
        try {
            return readDocument(StrictXml.parse(request));
        } catch (SAXException e) {
            return readText(request);
        }
    }

    private static RequestReading readDocument(Document document) {
        Element root = document.getDocumentElement();
        // Which of several opcodes counts is up to the library; any of them is reason for care.
        List<String> words = new ArrayList<>();
        Set<Integer> displays = new HashSet<>();
        int opcodes = 0;
        if (root.getTagName().equals("MendlineOperation")) {
            for (Node node = root.getFirstChild(); node != null; node = node.getNextSibling()) {
                if (node instanceof Element child && child.getTagName().equals("opcode")) {
                    opcodes++;
                    words.add(ownText(child));
                    words.add(child.getTextContent());
                } else if (node instanceof Element child && child.getTagName().equals("display")) {
                    addNumber(displays, ownText(child));
                    addNumber(displays, child.getTextContent());
                }
            }
        }
        boolean plain = opcodes == 1;
        return new RequestReading(true,
                words.stream().anyMatch(w -> TABLE_OPCODES.stream().anyMatch(w::contains)),
                words.stream().anyMatch(w -> w.contains(START)),
                plain && words.stream().allMatch(START::equals),
                words.stream().anyMatch(w -> w.contains(STOP)),
                plain && words.stream().allMatch(STOP::equals),
                Set.copyOf(displays));
    }

    /** The text that stands directly in the element, as the library joins it. */
    private static String ownText(Element element) {
        StringBuilder text = new StringBuilder();
        for (Node node = element.getFirstChild(); node != null; node = node.getNextSibling()) {
            if (node instanceof Text piece) {
                text.append(piece.getData());
            }
        }
        return text.toString();
    }

    /** Reads as the library does: leading blanks and a sign pass, and so does anything behind. */
    private static void addNumber(Set<Integer> numbers, String text) {
        Matcher matcher = LEADING_NUMBER.matcher(text);
        if (matcher.lookingAt()) {
            try {
                numbers.add(Integer.parseInt(matcher.group(1)));
            } catch (NumberFormatException e) {
                // Too large for the library as well, which then takes it for no number.
            }
        }
    }

    private static RequestReading readText(String request) {
        return new RequestReading(false,
                TABLE_OPCODES.stream().anyMatch(word -> mayHold(request, word)),
                mayHold(request, START), false,
                mayHold(request, STOP), false,
                Set.of());
    }

    private static boolean mayHold(String request, String word) {
        return spells(request, word) || spells(decode(request), word);
    }

    /**
     * Whether the letters of the word stand in the text in order, with nothing between two of them
     * but what could be markup: from any '<' or end of a CDATA section to any '>' or start of one.
     */
    private static boolean spells(String text, String word) {
        boolean[] reached = new boolean[text.length() + 1];
        Arrays.fill(reached, true);
        boolean found = false;
        for (char letter : word.toCharArray()) {
            boolean[] next = new boolean[text.length() + 1];
            boolean markup = false;
            found = false;
            for (int i = 0; i < text.length(); i++) {
                char before = i == 0 ? 0 : text.charAt(i - 1);
                char c = text.charAt(i);
                boolean here = reached[i] || markup && (before == '>' || before == '[');
                if (here && c == letter) {
                    next[i + 1] = true;
                    found = true;
                }
                markup |= here && (c == '<' || c == ']');
            }
            reached = next;
        }
        return found;
    }

    /**
     * Decodes references as willingly as the library's parser: it takes hexadecimal digits in decimal
     * numbers too, and a number that is too large wraps around.
     */
    private static String decode(String text) {
        return REFERENCE.matcher(text).replaceAll(match -> {
            if (match.group(3) != null) {
                return switch (match.group(3)) {
                    case "amp" -> "&";
                    case "lt" -> "<";
                    case "gt" -> ">";
                    case "quot" -> "\"";
                    default -> "'";
                };
            }
            int base = match.group(1) != null ? 16 : 10;
            long value = 0;
            for (char digit : (base == 16 ? match.group(1) : match.group(2)).toCharArray()) {
                value = value * base + Character.digit(digit, 16);
            }
            if (value < 0 || value > Character.MAX_CODE_POINT) {
                return "?";
            }
            return Matcher.quoteReplacement(Character.toString((int) value));
        });
    }
}
