package com.norvane.mendline.console;

import java.util.function.BooleanSupplier;

/** Waits for the collector's ticks, which the library does not announce: it polls the figures. */
final class TickWaiter {

    /** Seconds between two ticks. */
    static final int INTERVAL = 30;

    private static final long POLL = 500;
    /** Until the other figures of a tick are there, which are made right behind the process figures. */
    private static final long REST = 200;
    /** Three missed ticks: then the collector is dead rather than late. */
    private static final long PATIENCE = 3 * INTERVAL * 1000L;

    private final Connection connection;
    private final Pacer pacer;

    TickWaiter(Connection connection, Pacer pacer) {
        this.connection = connection;
        this.pacer = pacer;
    }

    /**
     * @param ticks how many to wait for, at least one
     * @param baseline timestamp of the last tick that does not count
     * @param firstAtOnce whether the first is due now, as it is right after a start
     * @param countdown told twice a second; null for none
     * @param cancelled asked between polls
     * @return false if cancelled
     * @throws ConsoleException if no tick comes for much longer than the interval
     */
    boolean await(int ticks, long baseline, boolean firstAtOnce, Countdown countdown,
            BooleanSupplier cancelled) {
        long last = baseline;
        int left = ticks;
        long since = pacer.now();
        boolean due = firstAtOnce;
        try {
            while (!cancelled.getAsBoolean()) {
                ProcessFigures figures = ProcessFigures.ask(connection);
                long now = pacer.now();
                if (!figures.none() && figures.timestamp() != last) {
                    last = figures.timestamp();
                    since = now;
                    due = false;
                    if (--left == 0) {
                        pacer.sleep(REST);
                        return true;
                    }
                }
                if (now - since > PATIENCE) {
                    throw new ConsoleException(ExitCodes.UNUSABLE,
                            "no tick of the collector for " + PATIENCE / 1000 + " s");
                }
                if (countdown != null) {
                    long intervals = due ? left - 1 : left;
                    countdown.show(Math.max(0, intervals * INTERVAL - (now - since) / 1000), left);
                }
                pacer.sleep(POLL);
            }
            return false;
        } finally {
            if (countdown != null) {
                countdown.done();
            }
        }
    }
}
