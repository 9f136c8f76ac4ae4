package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class DisplayWidthTest {

    @ParameterizedTest
    @CsvSource({"abc, 3", "é, 1", "e\u0301, 1", "名前, 4", "한글, 4", "🐧, 2", "ａ, 2", "…, 1", "'', 0"})
    void countsColumns(String text, int width) {
        assertEquals(width, DisplayWidth.of(text));
    }

    @ParameterizedTest
    @CsvSource({"abcdef, 6, abcdef", "abcdef, 5, abcd…", "名前名前, 5, 名前…", "名前名前, 4, 名…",
        "abc, 1, …", "abc, 0, ''", "🐧🐧, 3, 🐧…"})
    void fitCutsAtTheColumn(String text, int width, String fitted) {
        assertEquals(fitted, DisplayWidth.fit(text, width));
    }

    @Test
    void fitNeverExceedsTheWidth() {
        for (int width = 0; width < 20; width++) {
            assertTrue(DisplayWidth.of(DisplayWidth.fit("a名e\u0301前b한c🐧defgh", width)) <= width);
        }
    }

    @Test
    void paddingCountsColumnsToo() {
        assertEquals("  名", DisplayWidth.padLeft("名", 4));
        assertEquals("名  ", DisplayWidth.padRight("名", 4));
        assertEquals("toolong", DisplayWidth.padLeft("toolong", 3));
    }
}
