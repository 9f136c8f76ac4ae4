package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

class ShellWordsTest {

    @Test
    void splitsAtBlanks() {
        assertEquals(List.of("a", "b", "c"), ShellWords.split("  a\tb  c\r"));
    }

    @Test
    void quotesAndBackslashesAreAsInAShell() {
        assertEquals(List.of("<a b=\"c\">", "x y", "", "p q", "a'b", "say \"hi\" \\n"),
                ShellWords.split("'<a b=\"c\">' \"x y\" '' p\\ q \"a'b\" \"say \\\"hi\\\" \\n\""));
        assertEquals(List.of("onetwo"), ShellWords.split("one'two'"));
        assertEquals(List.of("\\"), ShellWords.split("'\\'"));
    }

    @ParameterizedTest
    @ValueSource(strings = {"", "   ", "# comment 'with a quote", "  #x"})
    void someLinesHaveNoWords(String line) {
        assertEquals(List.of(), ShellWords.split(line));
    }

    @Test
    void aHashInsideALineIsNoComment() {
        assertEquals(List.of("a", "#b"), ShellWords.split("a #b"));
    }

    @ParameterizedTest
    @ValueSource(strings = {"'a", "a \"b", "a\\"})
    void unfinishedLinesAreUsageErrors(String line) {
        ConsoleException e = assertThrows(ConsoleException.class, () -> ShellWords.split(line));
        assertEquals(ExitCodes.USAGE, e.exitCode());
    }
}
