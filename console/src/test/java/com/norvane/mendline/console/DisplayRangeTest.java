package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class DisplayRangeTest {

    private static DisplayRange read(String... lines) {
        return DisplayRange.read(List.of(lines), DisplayRange.DEFAULT);
    }

    @ParameterizedTest
    @CsvSource({"100,159,100,159", "200,100,100,159", "-5,-1,100,159", "60000,70000,100,159",
        "-5,10,0,10", "200,70000,200,259", "59530,70000,59530,59535", "0,0,0,0", "150,180,150,180"})
    void clampsAsTheLibraryDoes(int min, int max, int clampedMin, int clampedMax) {
        assertEquals(new DisplayRange(clampedMin, clampedMax),
                read("Desktop.displayNumberMin = " + min, "Desktop.displayNumberMax=" + max));
    }

    @Test
    void takesKeysBeforeTheFirstSectionOnly() {
        assertEquals(new DisplayRange(110, 159), read("; comment", "# comment", "",
                "Desktop.displayNumberMin=110", "[x]", "Desktop.displayNumberMax=120"));
    }

    @Test
    void aValueThatIsNoNumberLeavesTheBound() {
        assertEquals(new DisplayRange(110, 159),
                read("Desktop.displayNumberMin=110", "Desktop.displayNumberMax=12x"));
    }

    @ParameterizedTest
    @CsvSource({"nonsense", "=5", "[open", "Desktop.displayNumberMin=112"})
    void aMistakeAnywhereSetsTheFileAside(String line) {
        assertEquals(DisplayRange.DEFAULT, read("Desktop.displayNumberMin=110", line));
    }

    @Test
    void twoSectionsMayShareAKey() {
        assertEquals(new DisplayRange(110, 159),
                read("Desktop.displayNumberMin=110", "[a]", "k=1", "[b]", "k=2"));
    }

    @Test
    void withoutAFileTheRangeStays(@TempDir Path folder) throws Exception {
        DisplayRange before = new DisplayRange(5, 9);
        assertEquals(before, DisplayRange.load(folder.resolve("config"), before));
        Files.writeString(folder.resolve("config"), "Desktop.displayNumberMax=7\n");
        assertEquals(new DisplayRange(5, 7), DisplayRange.load(folder.resolve("config"), before));
        assertEquals(8, DisplayRange.load(folder.resolve("config"), before).justBeyond());
    }
}
