package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTimeout;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Duration;
import java.util.Set;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

class RequestInspectorTest {

    private static String operation(String content) {
        return "<MendlineOperation>" + content + "</MendlineOperation>";
    }

    @ParameterizedTest
    @ValueSource(strings = {
        "<opcode>ClearShm</opcode>",
        "<opcode>ProtocolInfo</opcode><display>101</display>",
        "<opcode><![CDATA[ClearShm]]></opcode>",
        "<opcode>Clear<![CDATA[Shm]]></opcode>",
        "<opcode>Clear<!-- a comment -->Shm</opcode>",
        "<opcode>Clear<?pi?>Shm</opcode>",
        "<opcode>Clear<b>x</b>Shm</opcode>",
        "<opcode><b>ClearShm</b></opcode>",
        "<opcode>&#67;lear&#x53;hm</opcode>",
        "<opcode a='b'>ClearShm</opcode>",
        "<opcode> ClearShm\n</opcode>",
        "<x/><opcode>ClearShm</opcode>",
        "<opcode>GetLogLevel</opcode><opcode>ClearShm</opcode>",
    })
    void seesTheTableInWhatItCanRead(String content) {
        RequestReading reading = RequestInspector.read(operation(content));
        assertTrue(reading.readable());
        assertTrue(reading.mayTouchTable());
    }

    @ParameterizedTest
    @ValueSource(strings = {
        "<MendlineOperation><opcode>ClearShm</opcode></Mendline>",
        "<MendlineOperation><opcode>ClearShm</wrong></MendlineOperation>",
        "<MendlineOperation><opcode>ClearShm",
        "<MendlineOperation><opcode>Clear<!-- > -->Shm</wrong></MendlineOperation>",
        "<MendlineOperation><opcode>Clear<b>x</c>Shm</opcode></MendlineOperation>",
        "<MendlineOperation><opcode>Clear<![CDATA[Shm]]></wrong></MendlineOperation>",
        "<MendlineOperation><opcode><![CDATA[Cl]]>ear<![CDATA[S]]><![CDATA[hm]]></wrong></x>",
        "<MendlineOperation><opcode>&#67;learShm</wrong></MendlineOperation>",
        "<MendlineOperation><opcode>&#x43;lear<!---->&#83;hm</wrong></MendlineOperation>",
        // A hexadecimal digit in a decimal number: 9 * 10 + 11 is an 'e'.
        "<MendlineOperation><opcode>Cl&#9B;arShm</wrong></MendlineOperation>",
        // 2^64 + 0x43.
        "<MendlineOperation><opcode>&#x10000000000000043;learShm</opcode></MendlineOperation>",
        "<!DOCTYPE a [<!ENTITY e 'x'>]><MendlineOperation><opcode>ClearShm</opcode></MendlineOperation>",
        "\uFEFF<MendlineOperation><opcode>ProtocolInfo</opcode></MendlineOperation>",
        "<a/><MendlineOperation><opcode>ClearShm</opcode></MendlineOperation>",
        "<MendlineOperation a=1><opcode>ClearShm</opcode></MendlineOperation>",
        "<MendlineOperation><opcode>ClearShm</opcode><x>\u0001</x></MendlineOperation>",
    })
    void seesTheTableInWhatItCannotRead(String request) {
        RequestReading reading = RequestInspector.read(request);
        assertFalse(reading.readable());
        assertTrue(reading.mayTouchTable());
    }

    @ParameterizedTest
    @ValueSource(strings = {
        "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>",
        "<MendlineOperation><opcode>GetLogLevel</opcode><x>ClearShm</x></MendlineOperation>",
        "<MendlineOperation opcode='ClearShm'/>",
        "<other><opcode>ClearShm</opcode></other>",
        "<MendlineOperation><!-- <opcode>ClearShm</opcode> --></MendlineOperation>",
        "<MendlineOperation><opcode>clearshm</opcode></MendlineOperation>",
        "<MendlineOperation><opcode>GetLogLevel</wrong></MendlineOperation>",
        "<MendlineOperation><opcode>Clear Shm</wrong></MendlineOperation>",
        "",
        "   ",
        "Clear",
    })
    void letsTheRestPass(String request) {
        assertFalse(RequestInspector.read(request).mayTouchTable());
    }

    @Test
    void knowsAPlainStartAndStop() {
        RequestReading start = RequestInspector.read(Request.of("StartCollector").toXml());
        assertTrue(start.surelyStarts() && start.mayStart());
        assertFalse(start.mayStop() || start.surelyStops() || start.mayTouchTable());
        RequestReading stop = RequestInspector.read(Request.of("StopCollector").toXml());
        assertTrue(stop.surelyStops() && stop.mayStop());
        assertFalse(stop.mayStart() || stop.surelyStarts());
    }

    @ParameterizedTest
    @ValueSource(strings = {
        "<MendlineOperation><opcode>StartCollector</wrong></MendlineOperation>",
        "<MendlineOperation><opcode>StartCollector</opcode><opcode>x</opcode></MendlineOperation>",
        "<MendlineOperation><opcode> StartCollector</opcode></MendlineOperation>",
        "<MendlineOperation><opcode>Start<b>x</b>Collector</opcode></MendlineOperation>",
    })
    void isNotSureOfAStrangeStart(String request) {
        assertTrue(RequestInspector.read(request).mayStart());
        assertFalse(RequestInspector.read(request).surelyStarts());
    }

    @ParameterizedTest
    @ValueSource(strings = {
        "<MendlineOperation><opcode>StopCollector</wrong></MendlineOperation>",
        "<MendlineOperation><opcode>x</opcode><opcode>StopCollector</opcode></MendlineOperation>",
    })
    void isNotSureOfAStrangeStop(String request) {
        assertTrue(RequestInspector.read(request).mayStop());
        assertFalse(RequestInspector.read(request).surelyStops());
    }

    @Test
    void readsDisplaysAsTheLibraryDoes() {
        assertEquals(Set.of(160, 101, -3, 7), RequestInspector.read(operation(
                "<opcode>ClearShm</opcode><display>160</display><display> +101abc</display>"
                        + "<display>-3</display><display><![CDATA[7]]></display>"
                        + "<display>x9</display><display>99999999999</display>")).displays());
        assertEquals(Set.of(160, 16), RequestInspector.read(operation(
                "<opcode>ClearShm</opcode><display>16<b>x</b>0</display>")).displays());
    }

    @Test
    void staysFastOnLongHostileText() {
        String text = "<C<l>e<a>r<S>h<".repeat(100_000);
        assertTimeout(Duration.ofSeconds(10), () -> RequestInspector.read(text));
    }
}
