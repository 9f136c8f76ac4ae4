package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

class SessionTest {

    private static final long LARGEST = -1;

    private static Optional<SessionFigures> parse(String body) {
        return SessionFigures.of(Answer.parse(FakeLibrary.HEAD + body));
    }

    private static SessionFigures figures(long bytes, String others, String loss) {
        return parse("<protocol>" + FakeLibrary.flare(bytes, others, loss) + "</protocol>")
                .orElseThrow();
    }

    @Test
    void everyCounterIsReadByItsName() {
        SessionFigures figures = parse("<protocol><flare>"
                + "<audio_recv_bytes>512</audio_recv_bytes>"
                + "<audio_transmit_bytes>2048</audio_transmit_bytes>"
                + "<cdr_recv_bytes>1</cdr_recv_bytes><cdr_transmit_bytes>2</cdr_transmit_bytes>"
                + "<image_frames_per_second>29</image_frames_per_second>"
                + "<image_recv_bytes>4096</image_recv_bytes>"
                + "<image_transmit_bytes>1048576</image_transmit_bytes>"
                + "<session_rtt>18</session_rtt>"
                + "<session_bandwidth_uplink>900</session_bandwidth_uplink>"
                + "<session_packet_loss_uplink>3</session_packet_loss_uplink>"
                + "</flare></protocol>").orElseThrow();
        assertEquals(List.of(
                "CHANNEL    RECEIVED        SENT",
                "image       4.0 KiB     1.0 MiB",
                "audio         512 B     2.0 KiB",
                "cdr             1 B         2 B",
                "FRAMES/s  ROUND TRIP  UPLINK BANDWIDTH  UPLINK LOSS",
                "      29          18               900            3"),
                SessionText.lines(figures, null));
        assertEquals("{\"display\":\"103\",\"audio_recv_bytes\":512,\"audio_transmit_bytes\":2048,"
                + "\"cdr_recv_bytes\":1,\"cdr_transmit_bytes\":2,\"image_frames_per_second\":29,"
                + "\"image_recv_bytes\":4096,\"image_transmit_bytes\":1048576,\"session_rtt\":18,"
                + "\"session_bandwidth_uplink\":900,\"session_packet_loss_uplink\":3}",
                SessionText.json("103", figures, null));
    }

    @Test
    void anEmptyElementIsNoSuchDisplay() {
        assertEquals(Optional.empty(), parse("<protocol/>"));
        assertEquals(Optional.empty(), parse("<protocol></protocol>"));
    }

    @Test
    void allCountersAreUnsignedAndFitTheTable() {
        SessionFigures figures = figures(LARGEST, "18446744073709551613", "18446744073709551614");
        List<String> lines = SessionText.lines(figures, SessionText.rates(figures,
                figures(0, "0", "0"), 1000));
        assertEquals("image      16.0 EiB    16.0 EiB    16.0 EiB    16.0 EiB", lines.get(1));
        assertEquals(" 1.84e19     1.84e19           1.84e19      1.84e19", lines.get(5));
        String json = SessionText.json("103", figures, null);
        assertTrue(json.contains("\"audio_recv_bytes\":18446744073709551615,"), json);
        assertTrue(json.endsWith("\"session_packet_loss_uplink\":18446744073709551614}"), json);
    }

    @Test
    void whatIsNoNumberInTheRecordIsNoFigure() {
        SessionFigures figures = figures(Long.MIN_VALUE, "9223372036854775808",
                "9223372036854775808");
        List<String> lines = SessionText.lines(figures, null);
        assertEquals("       -           -                 -            -", lines.get(5));
        // As a number of bytes it is one like others.
        assertEquals("cdr         8.0 EiB     8.0 EiB", lines.get(3));
        String json = SessionText.json("103", figures, null);
        assertTrue(json.contains("\"cdr_recv_bytes\":9223372036854775808,"), json);
        assertTrue(json.contains("\"image_frames_per_second\":null,"), json);
        assertTrue(json.endsWith("\"session_rtt\":null,\"session_bandwidth_uplink\":null,"
                + "\"session_packet_loss_uplink\":null}"), json);
    }

    @ParameterizedTest
    @CsvSource({"0, 0, 1000, 0", "0, 1, 1000, 1", "5, 4, 1000,", "0, 3, 2000, 1", "0, 10, 1001, 9",
        "-1, 0, 1000,", "-1, -1, 1000, 0", "-2, -1, 1000, 1", "0, -1, 1000, 18446744073709551615",
        "0, -1, 999,", "9223372036854775807, -9223372036854775808, 1000, 1", "0, 1, 0,",
        "0, 1, -1,"})
    void speedsAreUnsignedAndNeverNegative(long before, long after, long milliseconds,
            BigInteger rate) {
        assertEquals(rate, figures(after, "0", null).rate(SessionCounter.CDR_SENT,
                figures(before, "0", null), milliseconds));
    }

    @Test
    void onlyByteCountersHaveASpeedAndAFirstReadingHasNone() {
        SessionFigures before = figures(0, "0", "0");
        Map<SessionCounter, BigInteger> rates =
                SessionText.rates(figures(2048, "9", "9"), before, 1000);
        assertEquals(6, rates.size());
        assertNull(rates.get(SessionCounter.FRAME_RATE));
        assertEquals(Map.of(), SessionText.rates(before, null, 1000));
        assertEquals("CHANNEL    RECEIVED       per s        SENT       per s",
                SessionText.lines(before, Map.of()).get(0));
        assertEquals("cdr             0 B           -         0 B           -",
                SessionText.lines(before, Map.of()).get(3));
    }

    @Test
    void aRecordIsUntouchedOnlyWhileAllOfItIsZero() {
        assertTrue(figures(0, "0", "0").untouched());
        assertFalse(figures(1, "0", "0").untouched());
        assertFalse(figures(0, "1", "0").untouched());
        assertFalse(figures(0, "0", "1").untouched());
        // The worker's mark for no packet loss figure.
        assertFalse(figures(0, "0", null).untouched());
        assertFalse(figures(0, "9223372036854775808", "0").untouched());
    }

    @ParameterizedTest
    @ValueSource(strings = {"", "-1", "1.5", "+1", "18446744073709551616", "x", " 1"})
    void whatIsNotLikeTheLibrarysFiguresIsSaidSo(String text) {
        assertEquals(ExitCodes.UNUSABLE, assertThrows(ConsoleException.class,
                () -> figures(0, text, "0")).exitCode());
        assertEquals(ExitCodes.UNUSABLE, assertThrows(ConsoleException.class,
                () -> figures(0, "0", text)).exitCode());
    }

    @Test
    void aMissingCounterIsSaidSo() {
        for (String body : List.of("<protocol><flare/></protocol>", "<protocol>x</protocol>",
                "<protocol><other/></protocol>", "<flare/>")) {
            assertEquals(ExitCodes.UNUSABLE, assertThrows(ConsoleException.class,
                    () -> parse(body)).exitCode());
        }
    }
}
