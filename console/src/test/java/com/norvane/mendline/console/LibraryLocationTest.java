package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;

import java.nio.file.Path;
import org.junit.jupiter.api.Test;

class LibraryLocationTest {

    @Test
    void theMoreExplicitWins() {
        assertNull(new LibraryLocation(null, "").file());
        assertEquals(Path.of("l"), new LibraryLocation("", "l").file());
        LibraryLocation location = new LibraryLocation("e", "l");
        assertEquals(Path.of("e"), location.file());
        location.choose(Path.of("o"));
        assertEquals(Path.of("o"), location.file());
    }
}
