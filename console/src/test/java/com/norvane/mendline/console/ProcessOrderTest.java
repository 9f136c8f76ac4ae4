package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.List;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class ProcessOrderTest {

    private static final List<ProcessFigure> FIGURES = List.of(
            figure(1, ProcessFigure.NO_FIGURE, -1, 5),
            figure(2, 7, 10, -1),
            figure(3, 7, 20, 0),
            figure(4, 100, 5, 3),
            figure(6, 7, 20, 0),
            figure(5, 7, 20, 0));

    private static ProcessFigure figure(long id, long cpu, long mem, long disk) {
        return new ProcessFigure(id, 0, "", cpu, mem, disk, "");
    }

    @ParameterizedTest
    @CsvSource({"cpu, 4 3 5 6 2 1", "mem, 1 3 5 6 2 4", "disk, 2 1 4 3 5 6"})
    void largestFirstUnsignedAndTotal(ProcessOrder order, String ids) {
        List<String> sorted = FIGURES.stream().sorted(order.comparator())
                .map(f -> Long.toString(f.id())).toList();
        assertEquals(ids, String.join(" ", sorted));
    }
}
