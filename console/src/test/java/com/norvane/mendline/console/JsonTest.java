package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;

class JsonTest {

    @Test
    void quotesAndBackslashesAreEscapedAndPlainTextIsNot() {
        assertEquals("\"a\\\"b\\\\c/é名🐧\"", Json.string("a\"b\\c/é名🐧"));
        assertEquals("\"\"", Json.string(""));
    }

    @Test
    void whatATerminalWouldObeyIsEscapedWithoutLoss() {
        assertEquals("\"\\u001b\\u009b\\u202e\\ud800\\udb40\\udc41\\u000a\"",
                Json.string("\u001b\u009b\u202e\ud800" + Character.toString(0xE0041) + "\n"));
        for (char c = 0; c < 256; c++) {
            assertTrue(Json.string(String.valueOf(c)).codePoints()
                    .allMatch(TerminalText::isPlain));
        }
    }
}
