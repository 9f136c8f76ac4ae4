package com.norvane.mendline.console;

import java.util.function.BooleanSupplier;

/**
 * A command that works on figures of the collector. On its own it starts one, waits for its ticks,
 * shows and stops it; in the shell it shows what there is, or says why there is nothing.
 */
abstract class FiguresCommand extends ConsoleCommand {

    /** Why there is no CPU figure of the host, which is a quotient of nothing by nothing then. */
    static final String RESTARTED = "no CPU figure, as is usual after a stop and another start in one"
            + " process; a new process brings it back";

    FiguresCommand(ConsoleContext context) {
        super(context);
    }

    /** Looks at options and parameters before anything is started. */
    void check() {
    }

    /** @param running whether the shell has a collector */
    void checkInShell(boolean running) {
    }

    /** How many ticks it takes until the figures are worth showing. */
    int ticks() {
        return 2;
    }

    /** What to know about figures of a first tick; null for nothing. */
    abstract String firstTick();

    /** @param cancelled whether a command that goes on shall end */
    abstract void show(BooleanSupplier cancelled);

    @Override
    public final Integer call() {
        check();
        return context().inShell() ? showInShell() : showAlone();
    }

    private int showAlone() {
        context().startCollector();
        try {
            context().ticks().await(ticks(), context().takeBaseline(), true,
                    context().countdown(), () -> false);
            // Without the check a watch would outlive the pager that it writes to.
            show(() -> context().out().checkError());
        } finally {
            context().connection().ask(Request.of("StopCollector"));
        }
        return ExitCodes.OK;
    }

    private int showInShell() {
        boolean running = context().connection().collectorMayRun();
        checkInShell(running);
        ProcessFigures figures = ProcessFigures.ask(context().connection());
        if (figures.none()) {
            throw new ConsoleException(ExitCodes.REFUSED, running
                    ? "no figures yet: the collector's first tick is still to come; use wait"
                    : "no figures: no collector has been started in this shell; use start");
        }
        if (!running) {
            context().hint("the collector is stopped; these are the figures of its last tick");
        } else if (firstTick() != null && figures.idle()) {
            context().hint(firstTick());
        }
        show(context()::enterPressed);
        return ExitCodes.OK;
    }
}
