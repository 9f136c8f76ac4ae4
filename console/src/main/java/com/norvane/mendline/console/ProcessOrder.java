package com.norvane.mendline.console;

import java.util.Comparator;

/** What a process list can be sorted by. The constants are the words of the command line. */
enum ProcessOrder {
    // No figure comes last, though as a number it is larger than any real one.
    cpu((a, b) -> a.hasCpu() && b.hasCpu() ? Long.compareUnsigned(b.cpu(), a.cpu())
            : Boolean.compare(b.hasCpu(), a.hasCpu())),
    mem((a, b) -> Long.compareUnsigned(b.mem(), a.mem())),
    disk((a, b) -> Long.compareUnsigned(b.disk(), a.disk()));

    private final Comparator<ProcessFigure> largestFirst;

    ProcessOrder(Comparator<ProcessFigure> largestFirst) {
        this.largestFirst = largestFirst;
    }

    /** Total, so that a redrawn table does not shuffle equal processes. */
    Comparator<ProcessFigure> comparator() {
        return largestFirst
                .thenComparing((a, b) -> Long.compareUnsigned(b.mem(), a.mem()))
                .thenComparingLong(ProcessFigure::id);
    }
}
