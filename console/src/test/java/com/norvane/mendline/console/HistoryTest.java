package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class HistoryTest {

    private static final String HOST = "<timestamp>86430</timestamp><overall_cpu>12</overall_cpu>"
            + "<overall_mem>43</overall_mem><disk_iops_reads>3</disk_iops_reads>"
            + "<disk_iops_writes>17</disk_iops_writes><disk_latency>2</disk_latency>";
    private static final String USER = "<cpu>4</cpu><mem>6</mem>";
    private static final String ROUND_TRIP = "<flare_latency>18</flare_latency>";

    private static History parse(String content) {
        return History.of(Answer.parse(FakeLibrary.HEAD + content));
    }

    private static HistoryRecord record(String content) {
        return parse("<historicalMetrics><metric>" + content + "</metric></historicalMetrics>")
                .newest();
    }

    static HistoryRecord at(long timestamp) {
        return new HistoryRecord(timestamp, Map.of());
    }

    @Test
    void readsRecordsInTheirOrder() {
        History history = parse("<historicalMetrics><metric>" + HOST + ROUND_TRIP + USER
                + "</metric><metric>" + HOST.replace("86430", "86460")
                + "</metric></historicalMetrics>");
        assertEquals(2, history.records().size());
        assertEquals(86460, history.newest().timestamp());
        List<String> figures = new ArrayList<>();
        for (HistoryColumn column : HistoryColumn.values()) {
            figures.add(column.element() + "=" + history.records().get(0).get(column));
        }
        assertEquals(List.of("overall_cpu=12", "overall_mem=43", "disk_iops_reads=3",
                "disk_iops_writes=17", "disk_latency=2", "flare_latency=18", "cpu=4", "mem=6"),
                figures);
    }

    @Test
    void theUsersAndTheDisplaysFiguresMayBeAbsentInAnyRecord() {
        HistoryRecord bare = record(HOST);
        assertNull(bare.get(HistoryColumn.USER_CPU));
        assertNull(bare.get(HistoryColumn.USER_MEM));
        assertNull(bare.get(HistoryColumn.ROUND_TRIP));
        assertEquals(BigInteger.TWO, bare.get(HistoryColumn.DISK_LATENCY));
        assertNull(record(HOST + USER).get(HistoryColumn.ROUND_TRIP));
        assertEquals(BigInteger.valueOf(6), record(HOST + USER).get(HistoryColumn.USER_MEM));
        assertEquals(BigInteger.valueOf(18),
                record(HOST + ROUND_TRIP).get(HistoryColumn.ROUND_TRIP));
    }

    @Test
    void bit63AloneIsNoFigure() {
        String special = "9223372036854775808";
        assertNull(record(HOST.replace(">12<", ">" + special + "<")).get(HistoryColumn.OVERALL_CPU));
        assertNull(record(HOST + "<cpu>" + special + "</cpu>").get(HistoryColumn.USER_CPU));
        // The round trip time has a sign.
        assertNull(record(HOST + "<flare_latency>-" + special + "</flare_latency>")
                .get(HistoryColumn.ROUND_TRIP));
    }

    @Test
    void theWholeRangesAreRead() {
        for (String text : List.of("0", "9223372036854775807", "9223372036854775809",
                "18446744073709551615")) {
            assertEquals(new BigInteger(text), record(HOST.replace(">12<", ">" + text + "<"))
                    .get(HistoryColumn.OVERALL_CPU));
        }
        for (String text : List.of("-1", "9223372036854775807", "-9223372036854775807")) {
            assertEquals(new BigInteger(text),
                    record(HOST + ROUND_TRIP.replace("18", text)).get(HistoryColumn.ROUND_TRIP));
        }
        assertEquals(-1, record(HOST.replace("86430", "18446744073709551615")).timestamp());
    }

    @ParameterizedTest
    @CsvSource({"overall_cpu>12<, overall_cpu>18446744073709551616<", ">12<, >-1<", ">12<, >+1<",
        ">12<, ><", ">12<, >1.5<", ">12<, >nan<", ">2<, >\u0661<", ">18<, >9223372036854775808<",
        ">18<, >-9223372036854775809<", ">18<, >--1<", ">18<, >-<", ">4<, >-1<", "overall_mem, overall",
        "disk_latency, latency", "timestamp, time", ">86430<, >x<"})
    void whatIsMissingOrNoNumberIsSaidSo(String from, String to) {
        String good = HOST + ROUND_TRIP + USER;
        assertEquals(86430, record(good).timestamp());
        assertTrue(good.contains(from));
        assertEquals(ExitCodes.UNUSABLE, assertThrows(ConsoleException.class,
                () -> record(good.replace(from, to))).exitCode());
    }

    @Test
    void beforeTheFirstTickThereIsNoElementAndNoRecord() {
        assertTrue(parse("").none());
        assertTrue(parse("<historicalMetrics/>").none());
        assertFalse(parse("<historicalMetrics><metric>" + HOST + "</metric></historicalMetrics>")
                .none());
        assertThrows(ConsoleException.class, () -> parse("<INFO>x</INFO>"));
    }

    @Test
    void onlyFewerThanAllRecordsSurelyBeginWithTheFirst() {
        List<HistoryRecord> records = new ArrayList<>();
        for (int i = 0; i < 29; i++) {
            records.add(at(i + 1));
        }
        assertTrue(new History(records).beginsWithFirst());
        records.add(at(30));
        assertFalse(new History(records).beginsWithFirst());
    }

    @Test
    void agesCountFromTheNewestRecord() {
        History history = new History(List.of(at(0), at(-1), at(8_000), at(12_000), at(12_870)));
        assertEquals(List.of("-", "-", "1:21:10", "14:30", "0:00"),
                history.records().stream().map(history::age).toList());
        // More than half of all numbers apart: no age that means anything.
        assertEquals("-", new History(List.of(at(5), at(-5))).age(at(5)));
    }

    @Test
    void asksWithBothParametersAndExplainsAnUnknownUser() {
        FakeLibrary library = new FakeLibrary();
        Connection connection =
                new Connection(library, new SessionTableGuard(previous -> previous));
        assertTrue(History.ask(connection, "bob", "101").none());
        ConsoleException e = assertThrows(ConsoleException.class,
                () -> History.ask(connection, "a<b", "101"));
        assertEquals("<MendlineOperation><opcode>HistoricalMetrics</opcode><userName>a&lt;b</userName>"
                + "<display>101</display></MendlineOperation>", library.requests.get(1));
        assertEquals("Failed to get historical metrics: this host knows no user a<b",
                e.getMessage());
        assertEquals(ExitCodes.LIBRARY_ERROR, e.exitCode());
        assertEquals("Parameter display missed", assertThrows(ConsoleException.class,
                () -> History.ask(connection, "bob", "")).getMessage());
    }
}
