package com.norvane.mendline.console;

import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.ReentrantLock;

/**
 * This process's one way to the library. It sends one request at a time, checks each with
 * {@link SessionTableGuard}, and knows whether there is a collector to stop in the end.
 *
 * <p>The lock makes check, call and bookkeeping one step, because the shutdown hook stops the
 * collector on a thread of its own while a command may be about to touch the session table.
 */
final class Connection {

    private static final String STARTED = "Succeed to start collector";
    private static final long PATIENCE_SECONDS = 5;

    private final ReentrantLock lock = new ReentrantLock();
    private final MendlineLibrary library;
    private final SessionTableGuard guard;
    private boolean collectorMayRun;
    private boolean closed;

    Connection(MendlineLibrary library, SessionTableGuard guard) {
        this.library = library;
        this.guard = guard;
    }

    /**
     * Sends a request and gives the answer back untouched.
     *
     * @throws ConsoleException if the guard refuses it, the library cannot be loaded, or this
     *     connection is closed
     */
    String send(String request) {
        lock.lock();
        try {
            if (closed) {
                throw new ConsoleException(ExitCodes.REFUSED, "interrupted");
            }
            return exchange(request);
        } finally {
            lock.unlock();
        }
    }

    Answer ask(Request request) {
        return Answer.parse(send(request.toXml()));
    }

    /** Whether a start was sent in this process and no stop after it. */
    boolean collectorMayRun() {
        lock.lock();
        try {
            return collectorMayRun;
        } finally {
            lock.unlock();
        }
    }

    /**
     * Stops the collector if there may be one and takes no requests any more. It gives up when another
     * thread is stuck inside the library: a process that hangs at its end helps nobody.
     *
     * @return whether a stop was sent
     */
    boolean close() {
        try {
            if (!lock.tryLock(PATIENCE_SECONDS, TimeUnit.SECONDS)) {
                return false;
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            return false;
        }
        try {
            boolean stop = collectorMayRun;
            closed = true;
            if (stop) {
                exchange(Request.of("StopCollector").toXml());
            }
            return stop;
        } finally {
            lock.unlock();
        }
    }

    private String exchange(String request) {
        RequestReading reading = RequestInspector.read(request);
        guard.check(reading);
        guard.sending(reading);
        String answer = library.forwardAndHandleRequest(request);
        // Set only now: while the library cannot be loaded there is nothing to stop.
        collectorMayRun = (collectorMayRun || reading.mayStart()) && !reading.surelyStops();
        guard.answered(reading, reading.surelyStarts() && isStarted(answer));
        return answer;
    }

    private static boolean isStarted(String answer) {
        try {
            return Answer.parse(answer).isInfo(STARTED);
        } catch (ConsoleException e) {
            return false;
        }
    }
}
