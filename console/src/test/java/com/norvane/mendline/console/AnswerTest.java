package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;
import org.w3c.dom.Element;

class AnswerTest {

    private static final String HEAD = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

    @Test
    void theDeclarationAloneIsAnAnswerWithNothingInIt() {
        assertEquals(List.of(), Answer.parse(HEAD).elements());
    }

    @Test
    void theFallbackHasNoDeclaration() {
        Answer answer = Answer.parse("<ERROR>Failed to do mendline operation</ERROR>");
        assertEquals("Failed to do mendline operation", answer.error().orElseThrow());
    }

    @Test
    void severalRootsKeepTheirOrder() {
        Answer answer = Answer.parse(HEAD + "<a>1</a><b/><a>2</a>");
        assertEquals(List.of("a", "b", "a"),
                answer.elements().stream().map(Element::getTagName).toList());
        assertEquals("1", answer.expect("a").getTextContent());
    }

    @Test
    void everyForbiddenCharacterIsReplaced() {
        for (int c = 0; c < 0x10000; c++) {
            boolean forbidden = c < 0x20 && c != '\t' && c != '\n' && c != '\r'
                    || c >= 0xD800 && c <= 0xDFFF || c >= 0xFFFE;
            if (forbidden) {
                String text = Answer.parse(HEAD + "<INFO>a" + (char) c + "b</INFO>")
                        .expect("INFO").getTextContent();
                assertEquals("a\uFFFDb", text);
            }
        }
        assertEquals("a🐧\u0080b",
                Answer.parse(HEAD + "<INFO>a🐧\u0080b</INFO>").expect("INFO").getTextContent());
    }

    @Test
    void entitiesAreDecodedHoweverManyThereAre() {
        String many = "&amp;&lt;&gt;&quot;&apos;&#32;".repeat(100_000);
        assertEquals(600_000,
                Answer.parse(HEAD + "<INFO>" + many + "</INFO>").expect("INFO").getTextContent()
                        .length());
    }

    @ParameterizedTest
    @ValueSource(strings = {
        "<INFO>x</INF", "<INFO>x", "<INFO", "<", "<INFO>x</INFO><", "<INFO>&am", "</answer>",
        "</answer><answer>", "<INFO>x</OTHER>", "text", "<INFO>x</INFO>text",
        "<!DOCTYPE a [<!ENTITY e \"x\">]><INFO>x</INFO>", "<INFO>&e;</INFO>", "<INFO>a&b</INFO>"})
    void whatIsNotWellFormedIsSaidSo(String body) {
        assertUnusable(HEAD + body);
    }

    @Test
    void everyTruncationIsEitherReadableOrRefused() {
        String whole = HEAD + "<INFO>a</INFO><processMetrics><timestamp>1</timestamp>"
                + "</processMetrics>";
        int readable = 0;
        for (int length = 0; length < whole.length(); length++) {
            try {
                Answer.parse(whole.substring(0, length));
                readable++;
            } catch (ConsoleException e) {
                assertEquals(ExitCodes.UNUSABLE, e.exitCode());
            }
        }
        // The declaration alone, and the first element alone: nothing in the text tells those apart.
        assertEquals(2, readable);
    }

    @Test
    void noAnswerAtAllIsUnusable() {
        assertUnusable(null);
        assertUnusable("");
        assertUnusable("<INFO>no declaration</INFO>");
    }

    private static void assertUnusable(String raw) {
        assertEquals(ExitCodes.UNUSABLE,
                assertThrows(ConsoleException.class, () -> Answer.parse(raw)).exitCode());
    }

    @Test
    void expectPrefersTheLibrarysOwnError() {
        Answer answer = Answer.parse(HEAD + "<INFO>a</INFO><ERROR>no</ERROR>");
        ConsoleException e = assertThrows(ConsoleException.class, () -> answer.expect("INFO"));
        assertEquals(ExitCodes.LIBRARY_ERROR, e.exitCode());
        assertEquals("no", e.getMessage());
        assertEquals(ExitCodes.UNUSABLE, assertThrows(ConsoleException.class,
                () -> Answer.parse(HEAD + "<x/>").expect("INFO")).exitCode());
    }

    @Test
    void isInfoTakesNothingElse() {
        assertTrue(Answer.parse(HEAD + "<INFO>a</INFO>").isInfo("a"));
        assertFalse(Answer.parse(HEAD + "<INFO>a </INFO>").isInfo("a"));
        assertFalse(Answer.parse(HEAD + "<ERROR>a</ERROR>").isInfo("a"));
        assertFalse(Answer.parse(HEAD + "<INFO>a</INFO><ERROR/>").isInfo("a"));
        assertFalse(Answer.parse(HEAD).isInfo("a"));
    }
}
