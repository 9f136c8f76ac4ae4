package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.Map;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

class TerminalTest {

    @Test
    void takesWhatSttySays() {
        assertEquals(new Terminal.Size(50, 132), Terminal.size(Map.of(), "50 132\n"));
    }

    @Test
    void theKernelsConsoleLacksBlockCharacters() {
        assertTrue(Terminal.lacksBlocks("linux"));
        assertFalse(Terminal.lacksBlocks("xterm-256color"));
        assertFalse(Terminal.lacksBlocks(null));
    }

    @Test
    void theEnvironmentWins() {
        assertEquals(new Terminal.Size(10, 60),
                Terminal.size(Map.of("COLUMNS", "60", "LINES", "10"), "50 132\n"));
    }

    @ParameterizedTest
    @ValueSource(strings = {"", "0 0\n", "stty: error", "99999 99999"})
    void fallsBackToTheUsualSize(String stty) {
        assertEquals(new Terminal.Size(24, 80),
                Terminal.size(Map.of("COLUMNS", "0", "LINES", "many"), stty));
    }
}
