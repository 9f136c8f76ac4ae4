package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import org.junit.jupiter.api.Test;

class TickWaiterTest {

    private final FakeLibrary library = new FakeLibrary();
    private final Connection connection =
            new Connection(library, new SessionTableGuard(previous -> previous));
    private final TickWaiter waiter = new TickWaiter(connection, library);
    private final ByteArrayOutputStream shown = new ByteArrayOutputStream();

    private Countdown countdown(boolean terminal) {
        return new Countdown(new PrintStream(shown, true, StandardCharsets.UTF_8), terminal);
    }

    private String shown() {
        return shown.toString(StandardCharsets.UTF_8);
    }

    @Test
    void twoTicksAfterAStartTakeOneInterval() {
        connection.send(Request.of("StartCollector").toXml());
        long before = library.now();
        assertTrue(waiter.await(2, 0, true, countdown(false), () -> false));
        long took = library.now() - before;
        assertTrue(took >= 30_000 && took < 32_000, "took " + took);
    }

    @Test
    void aLogGetsOneLineForTenSeconds() {
        connection.send(Request.of("StartCollector").toXml());
        waiter.await(2, 0, true, countdown(false), () -> false);
        assertEquals("waiting for 2 ticks, about 30 s to go\n"
                + "waiting for 1 tick, about 20 s to go\n"
                + "waiting for 1 tick, about 10 s to go\n", shown());
    }

    @Test
    void aTerminalIsRedrawnInPlaceAndLeftClean() {
        connection.send(Request.of("StartCollector").toXml());
        waiter.await(2, 0, true, countdown(true), () -> false);
        assertFalse(shown().contains("\n"));
        assertTrue(shown().contains("\rwaiting for 1 tick, about 17 s to go\u001b[K"));
        assertTrue(shown().endsWith("\r\u001b[K"));
    }

    @Test
    void theBaselineDoesNotCount() {
        connection.send(Request.of("StartCollector").toXml());
        library.sleep(1000);
        long baseline = ProcessFigures.ask(connection).timestamp();
        assertTrue(baseline > 0);
        long before = library.now();
        waiter.await(1, baseline, false, null, () -> false);
        assertTrue(library.now() - before > 25_000);
    }

    @Test
    void theRecordOfTheTickIsThereToo() {
        // The poll then falls between the process figures of a tick and its record.
        library.startTakes = 150;
        connection.send(Request.of("StartCollector").toXml());
        waiter.await(2, 0, true, null, () -> false);
        assertEquals(2, History.ask(connection, "alice", "101").records().size());
    }

    @Test
    void aDeadCollectorIsNotWaitedForForever() {
        library.ticks = false;
        long before = library.now();
        connection.send(Request.of("StartCollector").toXml());
        ConsoleException e = assertThrows(ConsoleException.class,
                () -> waiter.await(1, 0, true, countdown(true), () -> false));
        assertEquals(ExitCodes.UNUSABLE, e.exitCode());
        assertTrue(library.now() - before < 100_000);
        assertTrue(shown().endsWith("\r\u001b[K"));
    }

    @Test
    void canBeCancelled() {
        connection.send(Request.of("StartCollector").toXml());
        assertFalse(waiter.await(5, 0, true, null, () -> library.now() > 20_000));
    }
}
