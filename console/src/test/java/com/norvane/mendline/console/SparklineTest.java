package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import org.junit.jupiter.api.Test;

class SparklineTest {

    /** Numbers with blanks between them; a dash is no figure. */
    private static Sparkline of(String figures, boolean unicode) {
        List<BigInteger> numbers = new ArrayList<>();
        for (String word : figures.split(" ")) {
            numbers.add(word.equals("-") ? null : new BigInteger(word));
        }
        return new Sparkline(numbers, unicode);
    }

    @Test
    void goesFromTheSmallestToTheLargest() {
        assertEquals("▁▂▃▄▅▆▇█", of("3 4 5 6 7 8 9 10", true).draw(1));
        assertEquals("_.-:=+*#", of("3 4 5 6 7 8 9 10", false).draw(1));
        assertEquals("█▁▄", of("1000 0 400", true).draw(1));
        assertEquals("▁▅█", of("-7 1 7", true).draw(1));
        assertEquals(Optional.of(BigInteger.valueOf(-7)), of("1 -7 7", true).smallest());
        assertEquals(Optional.of(BigInteger.valueOf(7)), of("1 -7 7", true).largest());
    }

    @Test
    void constantFiguresAreInTheMiddleAndNothingIsAtTheBottom() {
        assertEquals("▄▄▄", of("5 5 5", true).draw(1));
        assertEquals("▄", of("5", true).draw(1));
        assertEquals("▁▁", of("0 0", true).draw(1));
        assertEquals(":", of("-5", false).draw(1));
    }

    @Test
    void noFigureIsABlankAndKeepsItsPlace() {
        assertEquals(" ▁ █ ", of("- 1 - 2 -", true).draw(1));
        assertEquals("  ", of("- -", true).draw(1));
        assertEquals(Optional.empty(), of("- -", true).smallest());
        assertEquals("", new Sparkline(List.of(), true).draw(1));
    }

    @Test
    void whatACounterLeavesThatWentBackwardsIsNotDrawnToScale() {
        Sparkline plot = of("1 18446744073709551615 2 614891469123651720 999999999999", true);
        assertEquals("▁!▁!█", plot.draw(1));
        assertTrue(plot.hasImpossible());
        assertEquals(Optional.of(new BigInteger("999999999999")), plot.largest());
        assertEquals("!", of("-1000000000000", true).draw(1));
        assertEquals(Optional.empty(), of("-1000000000000", true).smallest());
        assertFalse(of("999999999999 -", true).hasImpossible());
    }

    @Test
    void aGroupShowsItsLargestAndTheOldestMayBeSmaller() {
        assertEquals("▂█", of("0 1 0 7", true).draw(2));
        assertEquals("█▁▂", of("7 0 0 0 1", true).draw(2));
        assertEquals("▁!", of("0 - 18446744073709551615 7", true).draw(2));
        assertEquals(" █", of("- - - 7 - 0", true).draw(3));
        assertEquals("█", of("0 7", true).draw(30));
    }
}
