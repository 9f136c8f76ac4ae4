package com.norvane.mendline.console;

/** The passing of time, which tests replace. */
interface Pacer {

    /** Milliseconds from some fixed moment; never goes back. */
    long now();

    void sleep(long milliseconds);

    /** The clock on the wall: seconds since the epoch. */
    long epochSeconds();

    /** Never returns; the process ends by a signal. */
    void sleepForever();

    /** Real time. */
    final class Real implements Pacer {
        @Override
        public long now() {
            return System.nanoTime() / 1_000_000;
        }

        @Override
        public void sleep(long milliseconds) {
            try {
                Thread.sleep(milliseconds);
            } catch (InterruptedException e) {
                // Nobody interrupts the command thread; signals end the process by other ways.
                throw new IllegalStateException("interrupted", e);
            }
        }

        @Override
        public long epochSeconds() {
            return System.currentTimeMillis() / 1000;
        }

        @Override
        public void sleepForever() {
            while (true) {
                sleep(Long.MAX_VALUE);
            }
        }
    }
}
