package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTimeoutPreemptively;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Duration;
import java.util.concurrent.CountDownLatch;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** The guard together with the bookkeeping that feeds it. */
class ConnectionTest {

    private static final String START = Request.of("StartCollector").toXml();
    private static final String STOP = Request.of("StopCollector").toXml();

    private final FakeLibrary library = new FakeLibrary();
    private DisplayRange configured = DisplayRange.DEFAULT;
    private final Connection connection =
            new Connection(library, new SessionTableGuard(previous -> configured));

    private static String clear(String display) {
        return Request.of("ClearShm").with("display", display).toXml();
    }

    private void assertRefused(String request) {
        int sent = library.requests.size();
        assertEquals(ExitCodes.REFUSED,
                assertThrows(ConsoleException.class, () -> connection.send(request)).exitCode());
        assertEquals(sent, library.requests.size());
    }

    @Test
    void theTableIsOutOfReachBeforeAStart() {
        assertRefused(clear("101"));
        assertRefused(Request.of("ProtocolInfo").with("display", "101").toXml());
    }

    @Test
    void theTableIsInReachAfterAStart() {
        connection.send(START);
        assertTrue(connection.send(clear("101")).contains("Finish"));
    }

    @Test
    void aFailedStartDetaches() {
        library.startFails = true;
        connection.send(START);
        assertRefused(clear("101"));
        library.startFails = false;
        connection.send(START);
        connection.send(clear("101"));
        library.startFails = true;
        connection.send(START);
        assertRefused(clear("101"));
    }

    @Test
    void aStopDetaches() {
        connection.send(START);
        connection.send(STOP);
        assertRefused(clear("101"));
    }

    @ParameterizedTest
    @ValueSource(strings = {
        "<MendlineOperation><opcode>StopCollector</wrong></MendlineOperation>",
        "<MendlineOperation><opcode>Stop<![CDATA[Collector]]></wrong></MendlineOperation>",
        "<MendlineOperation><opcode>StartCollector</wrong></MendlineOperation>",
    })
    void whatMayStopOrStartDetachesToo(String request) {
        connection.send(START);
        connection.send(request);
        assertRefused(clear("101"));
    }

    @Test
    void anAnswerThatIsNotSuccessDoesNotAttach() {
        for (String answer : new String[] {"", FakeLibrary.HEAD, FakeLibrary.HEAD + "<INFO>x</INFO>",
            FakeLibrary.HEAD + "<INFO>Succeed to start collector</INFO><ERROR/>"}) {
            library.canned = answer;
            connection.send(START);
            assertRefused(clear("101"));
        }
    }

    @Test
    void aStrangeStartDoesNotAttachEvenIfAnsweredWithSuccess() {
        library.canned = FakeLibrary.HEAD + "<INFO>Succeed to start collector</INFO>";
        connection.send("<MendlineOperation><opcode>StartCollector</wrong></MendlineOperation>");
        assertRefused(clear("101"));
        assertTrue(connection.collectorMayRun());
    }

    @Test
    void theDisplayBehindTheLastRecordIsRefused() {
        connection.send(START);
        connection.send(clear("159"));
        assertRefused(clear("160"));
        assertRefused(clear(" +160abc"));
        connection.send(clear("161"));
    }

    @Test
    void theRangeIsThatOfTheLastStart() {
        configured = new DisplayRange(150, 180);
        connection.send(START);
        connection.send(clear("160"));
        assertRefused(clear("181"));
        // A change of the file alone changes nothing in the library.
        configured = new DisplayRange(150, 170);
        assertRefused(clear("181"));
        connection.send(clear("171"));
        connection.send(START);
        assertRefused(clear("171"));
        connection.send(clear("181"));
    }

    @Test
    void anUnreadableRequestForTheTableIsRefusedEvenAfterAStart() {
        connection.send(START);
        assertRefused("<MendlineOperation><opcode>ClearShm</wrong></MendlineOperation>");
    }

    @Test
    void otherUnreadableRequestsGoThroughUntouched() {
        String odd = "<MendlineOperation><opcode>GetLogLevel</wrong>";
        connection.send(odd);
        assertEquals(odd, library.requests.get(0));
    }

    @Test
    void closeStopsWhatWasStartedOnce() {
        connection.send(START);
        assertTrue(connection.close());
        assertFalse(connection.close());
        assertEquals(1, library.count("StopCollector"));
        assertRefused(Request.of("GetLogLevel").toXml());
    }

    @Test
    void closeStopsAfterAFailedStartToo() {
        // It can leave the session table behind.
        library.startFails = true;
        connection.send(START);
        assertTrue(connection.close());
    }

    @Test
    void closeSendsNothingWhereNothingRuns() {
        connection.send(START);
        connection.send(STOP);
        assertFalse(connection.close());
        assertEquals(1, library.count("StopCollector"));
    }

    @Test
    void closeStopsAfterWhatMayOrMayNotHaveBeenAStop() {
        connection.send(START);
        connection.send("<MendlineOperation><opcode>StopCollector</wrong></MendlineOperation>");
        assertTrue(connection.close());
    }

    @Test
    void closeDoesNotWaitForeverForARequestThatHangs() throws Exception {
        CountDownLatch inside = new CountDownLatch(1);
        CountDownLatch release = new CountDownLatch(1);
        Connection hanging = new Connection(request -> {
            inside.countDown();
            try {
                release.await();
            } catch (InterruptedException e) {
                throw new IllegalStateException(e);
            }
            return FakeLibrary.HEAD;
        }, new SessionTableGuard(previous -> previous));
        Thread request = new Thread(() -> hanging.send(START));
        request.start();
        inside.await();
        assertTimeoutPreemptively(Duration.ofSeconds(20), () -> assertFalse(hanging.close()));
        release.countDown();
        request.join();
        assertTrue(hanging.close());
    }

    @Test
    void closeDoesNotLoadTheLibraryJustToStopNothing() {
        library.loadable = false;
        assertThrows(ConsoleException.class, () -> connection.send(START));
        assertFalse(connection.close());
    }
}
