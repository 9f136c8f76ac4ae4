package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.util.Set;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class TerminalTextTest {

    /** Said here once more and not taken from the code under test. */
    private static final Set<Integer> MUST_NOT_PASS = Set.of(0x00AD, 0x061C, 0x200B, 0x200C, 0x200D,
            0x200E, 0x200F, 0x2028, 0x2029, 0x202A, 0x202B, 0x202C, 0x202D, 0x202E, 0x2060, 0x2061,
            0x2066, 0x2067, 0x2068, 0x2069, 0x3164, 0xFEFF, 0xE0001, 0xE0041, 0xFE0F);

    @Test
    void everyByteValueAsLatin1ComesOutPrintable() {
        for (int b = 0; b < 256; b++) {
            String shown = TerminalText.line("a" + (char) b + "z");
            if (b < 0x20 || b >= 0x7F && b <= 0x9F || b == 0xAD) {
                assertEquals(String.format("a\\x%02xz", b), shown);
            } else {
                assertEquals("a" + (char) b + "z", shown);
            }
        }
    }

    @Test
    void everyByteValueInsideUtf8ComesOutPrintable() {
        for (int b = 0; b < 256; b++) {
            String name = new String(new byte[] {'a', (byte) b, 'z'}, StandardCharsets.UTF_8);
            TerminalText.line(name).codePoints().forEach(c ->
                    assertTrue(c >= 0x20 && c != 0x7F && !(c >= 0x80 && c <= 0x9F)));
        }
    }

    @Test
    void noCodePointThatMisleadsPasses() {
        for (int c = 0; c <= Character.MAX_CODE_POINT; c++) {
            boolean control = c < 0x20 || c >= 0x7F && c <= 0x9F;
            boolean surrogate = c >= 0xD800 && c <= 0xDFFF;
            if (control || surrogate || MUST_NOT_PASS.contains(c)) {
                String shown = TerminalText.line(new String(Character.toChars(c)));
                assertTrue(shown.matches("\\\\(x[0-9a-f]{2}|u[0-9a-f]{4}|u\\{[0-9a-f]+})"), shown);
            }
        }
    }

    @ParameterizedTest
    @CsvSource({"27, \\x1b", "0x202e, \\u202e", "0xd800, \\ud800", "0xe0041, \\u{e0041}"})
    void isWrittenByItsNumber(String character, String shown) {
        int c = Integer.decode(character);
        assertEquals(shown, TerminalText.line(new StringBuilder().appendCodePoint(c).toString()));
    }

    @Test
    void ordinaryTextOfAnyScriptStays() {
        String text = "kworker/0:1-events (déjà) 名前 привет שלום e\u0301 🐧 \\";
        assertEquals(text, TerminalText.line(text));
    }

    @Test
    void onlyLinesKeepsLineFeeds() {
        assertEquals("a\nb\\x0d", TerminalText.lines("a\nb\r"));
        assertEquals("a\\x0ab", TerminalText.line("a\nb"));
        assertFalse(TerminalText.lines("\u001b]0;x\u0007").contains("\u001b"));
    }
}
