package com.norvane.mendline.console;

import java.io.PrintStream;

/**
 * Tells on standard error how long a wait will go on: redrawn in place on a terminal, and elsewhere
 * one line for every ten seconds, so that a log stays short.
 */
final class Countdown {

    private static final int STEP = 10;

    private final PrintStream err;
    private final boolean terminal;
    private String shown = "";
    private long step = -1;

    Countdown(PrintStream err, boolean terminal) {
        this.err = err;
        this.terminal = terminal;
    }

    void show(long seconds, int ticks) {
        String text = "waiting for " + ticks + (ticks == 1 ? " tick" : " ticks") + ", about "
                + seconds + " s to go";
        if (terminal) {
            if (!text.equals(shown)) {
                err.print("\r" + text + "\u001b[K");
                err.flush();
            }
        } else if ((seconds + STEP - 1) / STEP != step) {
            step = (seconds + STEP - 1) / STEP;
            err.println(text);
        }
        shown = text;
    }

    /** Leaves nothing behind on a terminal. */
    void done() {
        if (terminal && !shown.isEmpty()) {
            err.print("\r\u001b[K");
            err.flush();
        }
        shown = "";
        step = -1;
    }
}
