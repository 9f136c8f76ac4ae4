package com.norvane.mendline.console;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** Whole command lines, from arguments to exit codes, over a library that is not there. */
class CommandLineTest {

    private static final String CLEAR =
            "<MendlineOperation><opcode>ClearShm</opcode><display>101</display></MendlineOperation>";

    private final FakeLibrary library = new FakeLibrary();
    private final LibraryLocation location = new LibraryLocation(null, null);
    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private final ByteArrayOutputStream err = new ByteArrayOutputStream();
    private byte[] in = {};
    private Terminal terminal = new Terminal(false, false, false, true);

    private int run(String... arguments) {
        Connection connection = new Connection(library,
                new SessionTableGuard(previous -> DisplayRange.DEFAULT));
        return Main.run(new ConsoleContext(new ByteArrayInputStream(in),
                new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8), terminal, connection, location,
                library), arguments);
    }

    private int shell(String script) {
        in = script.getBytes(StandardCharsets.UTF_8);
        return run("shell");
    }

    private String out() {
        return out.toString(StandardCharsets.UTF_8);
    }

    private String err() {
        return err.toString(StandardCharsets.UTF_8);
    }

    @ParameterizedTest
    @ValueSource(strings = {"", "nonsense", "--nonsense", "request", "request a b",
        "processes --sort name", "processes --limit x", "processes --limit -1", "loglevel a b",
        "start x", "wait", "exit", "loglevel \u0007", "history", "history alice", "history a b c",
        "history a\u0007 101", "history alice 101 --watch", "load x", "gpu", "gpu x", "gpu start x",
        "loglevel DEBUG --json", "session", "session :101", "session 101x", "session -1",
        "session 101 102", "session 101 --count 0", "session 101 --count x",
        "session 101 --interval 2", "session 101 --watch --interval 0", "end", "end x", "end 1x",
        "end 0 --yes", "end -- -1 --yes", "end 99999999999 --yes", "end 1 2 --yes", "end 2"})
    void wrongCommandLinesEndWithUsage(String line) {
        assertEquals(ExitCodes.USAGE, run(line.isEmpty() ? new String[0] : line.split(" ")));
        assertEquals("", out());
        assertTrue(err().startsWith("mendline: "), err());
        assertEquals(0, library.requests.size());
    }

    @ParameterizedTest
    @ValueSource(strings = {"--help", "request --help", "start -h", "stop --help",
        "processes --help", "loglevel --help", "shell --help", "history --help", "load --help",
        "gpu --help", "gpu start --help", "session --help", "end --help"})
    void everyCommandHasHelpWithExitCodes(String line) {
        assertEquals(ExitCodes.OK, run(line.split(" ")));
        assertTrue(out().contains("Usage: mendline"), out());
        assertTrue(out().contains("refused by this client"), out());
        assertEquals(0, library.requests.size());
    }

    @Test
    void hasAVersion() {
        assertEquals(ExitCodes.OK, run("--version"));
        // The number is in the jar; the launcher's test looks at it.
        assertTrue(out().startsWith("mendline "), out());
    }

    @Test
    void theLibraryOptionWorksBeforeAndBehindTheCommand() {
        assertEquals(ExitCodes.OK, run("--library", "a.so", "loglevel"));
        assertEquals(Path.of("a.so"), location.file());
        assertEquals(ExitCodes.OK, run("loglevel", "--library=b.so"));
        assertEquals(Path.of("b.so"), location.file());
        assertEquals(ExitCodes.OK, run("gpu", "start", "--library=c.so"));
        assertEquals(Path.of("c.so"), location.file());
    }

    @Test
    void aLibraryThatCannotBeLoadedIsSaidSo() {
        library.loadable = false;
        for (String command : new String[] {"start", "stop", "processes", "loglevel", "load",
            "history alice 101", "gpu start", "session 101", "end 2 --yes"}) {
            assertEquals(ExitCodes.UNUSABLE, run(command.split(" ")));
        }
        assertTrue(err().contains("cannot load"), err());
    }

    @Test
    void requestPrintsTheAnswerToTheByte() {
        library.canned = FakeLibrary.HEAD + "<INFO>é\u001b\ud800\u0000</INFO><x/>";
        assertEquals(ExitCodes.OK, run("request", "<anything/>"));
        assertEquals(FakeLibrary.HEAD + "<INFO>é\u001b\uFFFD\u0000</INFO><x/>", out());
        assertEquals("<anything/>", library.requests.get(0));
    }

    @Test
    void requestTakesNoRiskWithATerminal() {
        terminal = new Terminal(false, true, false, true);
        library.canned = FakeLibrary.HEAD + "<INFO>\u001b[2J\u202e</INFO>";
        assertEquals(ExitCodes.OK, run("request", "<anything/>"));
        assertEquals(FakeLibrary.HEAD + "<INFO>\\x1b[2J\\u202e</INFO>\n", out());
    }

    @Test
    void requestReadsStandardInput() {
        in = "<é>\n".getBytes(StandardCharsets.UTF_8);
        assertEquals(ExitCodes.LIBRARY_ERROR, run("request", "-"));
        assertEquals("<é>\n", library.requests.get(0));
        in = new byte[] {'<', (byte) 0xFF};
        assertEquals(ExitCodes.USAGE, run("request", "-"));
    }

    @ParameterizedTest
    @CsvSource({"<INFO/>, 0", "'', 0", "<ERROR>x</ERROR>, 1", "<a/><ERROR/>, 1", "<INFO>x, 3",
        "<a><ERROR/></a>, 0"})
    void requestExitsByTheAnswerAndPrintsItInAnyCase(String body, int code) {
        library.canned = FakeLibrary.HEAD + body;
        assertEquals(code, run("request", "<anything/>"));
        assertEquals(FakeLibrary.HEAD + body, out());
    }

    @Test
    void anAbsentAnswerIsNotPrintedAsOne() {
        library.canned = "";
        assertEquals(ExitCodes.UNUSABLE, run("request", "<anything/>"));
        assertEquals("", out());
    }

    @Test
    void requestRefusesWhatWouldCrash() {
        assertEquals(ExitCodes.REFUSED, run("request", CLEAR));
        assertEquals(0, library.requests.size());
        assertTrue(err().contains("session table"), err());
    }

    @Test
    void startAloneStaysAndStopsInTheEnd() {
        assertEquals(ExitCodes.OK, run("start"));
        assertEquals(1, library.sleptForever);
        assertEquals("Succeed to start collector\n", out());
        assertTrue(err().contains("mendline shell"), err());
        assertEquals(1, library.count("StopCollector"));
    }

    @Test
    void aFailedStartDoesNotStay() {
        library.startFails = true;
        assertEquals(ExitCodes.LIBRARY_ERROR, run("start"));
        assertEquals(0, library.sleptForever);
        assertEquals("mendline: Failed to start collector\n", err());
    }

    @Test
    void stopAloneHints() {
        assertEquals(ExitCodes.OK, run("stop"));
        assertEquals("Finish to stop collector\n", out());
        assertTrue(err().contains("mendline shell"), err());
    }

    @Test
    void loglevelShowsAndSets() {
        assertEquals(ExitCodes.OK, run("loglevel"));
        assertEquals("INFO\n", out());
        assertEquals(ExitCodes.OK, run("loglevel", "DEBUG"));
        assertEquals(ExitCodes.LIBRARY_ERROR, run("loglevel", "X"));
        assertTrue(err().endsWith("mendline: Invalid loglevel X\n"), err());
    }

    @Test
    void loglevelPrintsJson() {
        assertEquals(ExitCodes.OK, run("loglevel", "--json"));
        assertEquals("{\"LOGLEVEL\":\"INFO\"}\n", out());
        library.canned = FakeLibrary.HEAD + "<ERROR>no</ERROR>";
        assertEquals(ExitCodes.LIBRARY_ERROR, run("loglevel", "--json"));
    }

    @Test
    void textsOfTheLibraryReachNoTerminalRaw() {
        library.canned = FakeLibrary.HEAD + "<ERROR>\u202e\u009b\n</ERROR>";
        assertEquals(ExitCodes.LIBRARY_ERROR, run("loglevel", "X"));
        assertEquals("mendline: \\u202e\\x9b\\x0a\n", err());
        library.canned = FakeLibrary.HEAD + "<LOGLEVEL>\u202e</LOGLEVEL>";
        assertEquals(ExitCodes.OK, run("loglevel"));
        assertEquals("\\u202e\n", out());
        out.reset();
        assertEquals(ExitCodes.OK, run("loglevel", "--json"));
        assertEquals("{\"LOGLEVEL\":\"\\u202e\"}\n", out());
    }

    @Test
    void processesAloneWaitsForRealFiguresAndStops() {
        long before = library.now();
        assertEquals(ExitCodes.OK, run("processes", "--limit=1"));
        assertTrue(library.now() - before >= 30_000);
        assertEquals(1, library.count("StartCollector"));
        assertEquals(1, library.count("StopCollector"));
        String[] lines = out().split("\n");
        assertEquals(3, lines.length, out());
        assertTrue(lines[0].startsWith("1 of 2 processes by cpu, tick at "), lines[0]);
        assertTrue(lines[2].matches(" +2 +alice +20 +2\\.4 KiB +77 B +16m40s +sec\uFFFDond"), lines[2]);
    }

    @Test
    void processesSortsAndPrintsJson() {
        assertEquals(ExitCodes.OK, run("processes", "--sort", "mem", "--json"));
        assertTrue(out().matches("\\{\"timestamp\":\\d+,\"processes\":\\[\\{\"id\":1,.*\"id\":2.*]}\n"),
                out());
    }

    @Test
    void processesStopsTheCollectorWhenNoTickComes() {
        library.ticks = false;
        assertEquals(ExitCodes.UNUSABLE, run("processes"));
        assertEquals(1, library.count("StopCollector"));
    }

    @Test
    void aFailedStartEndsProcesses() {
        library.startFails = true;
        assertEquals(ExitCodes.LIBRARY_ERROR, run("processes"));
        assertEquals("", out());
    }

    @Test
    void historyAloneWaitsForTwoRecordsAndStops() {
        long before = library.now();
        assertEquals(ExitCodes.OK, run("history", "alice", "101"));
        assertTrue(library.now() - before >= 30_000);
        assertEquals(1, library.count("StartCollector"));
        assertEquals(1, library.count("StopCollector"));
        assertTrue(out().startsWith("alice, display 101: 2 records, latest at 86435 s"), out());
        assertTrue(out().contains("0:30*"), out());
        assertTrue(out().contains("RTT ms   ▄  18\n"), out());
        assertTrue(err().contains("waiting for 1 tick"), err());
        assertFalse(err().contains("hint"), err());
    }

    @Test
    void historyDrawsInAsciiWhereAskedOrNeeded() {
        assertEquals(ExitCodes.OK, run("history", "alice", "101", "--ascii"));
        assertTrue(out().contains("RTT ms   :  18\n"), out());
        terminal = new Terminal(false, false, false, false);
        out.reset();
        assertEquals(ExitCodes.OK, run("history", "alice", "101"));
        assertTrue(out().contains("RTT ms   ::::  18\n"), out());
    }

    @Test
    void historyPrintsJsonAndSaysWhatIsMissing() {
        assertEquals(ExitCodes.OK, run("history", "bob", "7\u202e", "--json"));
        assertTrue(out().matches("\\{\"userName\":\"bob\",\"display\":\"7\\\\u202e\",\"metrics\":\\["
                + "\\{\"timestamp\":86405,.*\"cpu\":null,\"mem\":null},\\{\"timestamp\":86435,.*}]}\n"),
                out());
        assertTrue(err().contains("the user bob had no process"), err());
        assertTrue(err().contains("display 7\\u202e had no round trip time"), err());
    }

    @Test
    void anUnknownUserIsToldBeforeAnythingIsStarted() {
        long before = library.now();
        assertEquals(ExitCodes.LIBRARY_ERROR, run("history", "mallory\u202e", "101"));
        assertTrue(err().endsWith("this host knows no user mallory\\u202e\n"), err());
        assertEquals(ExitCodes.LIBRARY_ERROR, run("history", "", "101"));
        assertTrue(err().endsWith("mendline: Parameter userName missed\n"), err());
        assertEquals(0, library.count("StartCollector"));
        assertEquals(before, library.now());
        assertEquals("", out());
    }

    @Test
    void loadAloneWaitsForRealFiguresAndStops() {
        long before = library.now();
        assertEquals(ExitCodes.OK, run("load"));
        assertTrue(library.now() - before >= 30_000);
        assertEquals(1, library.count("StopCollector"));
        assertTrue(out().startsWith("CPU         12.50 %\nmemory      43.21 %\n"), out());
        assertFalse(err().contains("hint"), err());
        out.reset();
        assertEquals(ExitCodes.OK, run("load", "--json"));
        assertEquals("{\"cpuUsage\":12.500000,\"memUsage\":43.210000,\"diskRead\":0.000000,"
                + "\"diskWrite\":1.250000,\"diskQueue\":null}\n", out());
    }

    @Test
    void noCpuFigureIsExplained() {
        library.noCpuFigure = true;
        assertEquals(ExitCodes.OK, run("load"));
        assertTrue(err().contains("hint: no CPU figure, as is usual after a stop"), err());
        err.reset();
        assertEquals(ExitCodes.OK, run("history", "alice", "101"));
        assertTrue(err().contains("hint: no CPU figure, as is usual after a stop"), err());
    }

    @ParameterizedTest
    @ValueSource(strings = {"load", "history alice 101"})
    void noTickMeansNoFigures(String command) {
        library.ticks = false;
        assertEquals(ExitCodes.UNUSABLE, run(command.split(" ")));
        assertEquals("", out());
        assertEquals(1, library.count("StopCollector"));
    }

    @ParameterizedTest
    @ValueSource(strings = {"load", "history alice 101"})
    void theShellSaysWhyThereIsNoLoadOrHistory(String command) {
        assertEquals(ExitCodes.REFUSED, shell(command + "\nstart\n" + command + "\n"));
        assertTrue(err().contains("no collector has been started"), err());
        assertTrue(err().contains("first tick is still to come"), err());
        assertEquals("Succeed to start collector\n", out());
        assertEquals(1, library.count("StartCollector"));
        err.reset();
        assertEquals(ExitCodes.OK, shell("start\nwait 2\n" + command + "\nstop\n" + command));
        assertEquals("hint: the collector is stopped; these are the figures of its last tick\n",
                err().substring(err().lastIndexOf("hint")));
    }

    @Test
    void theShellWarnsOfALoadSinceBootAndShowsOneRecordForWhatItIs() {
        assertEquals(ExitCodes.OK, shell("start\nwait\nload\nhistory alice 101\n"));
        assertTrue(err().contains("averages since boot; use wait"), err());
        assertTrue(out().contains("1 record, "), out());
        assertTrue(out().contains("no plot yet"), out());
        err.reset();
        assertEquals(ExitCodes.OK, shell("start\nwait 2\nload\n"));
        assertFalse(err().contains("averages"), err());
    }

    @Test
    void aHistoryThatIsLateIsNotAnEmptyTable() {
        library.startTakes = 150;
        assertEquals(ExitCodes.REFUSED, shell("start\nhistory alice 101\n"));
        assertTrue(err().contains("no records yet"), err());
    }

    @Test
    void gpuStartSaysHowItWentAndWhereItLives() {
        assertEquals(ExitCodes.OK, run("gpu", "start"));
        assertEquals("Finish to start vGPU memory collector\n", out());
        assertTrue(err().contains("mendline shell"), err());
        err.reset();
        assertEquals(ExitCodes.OK, shell("gpu start\n"));
        assertEquals("", err());
        library.gpuFails = true;
        assertEquals(ExitCodes.LIBRARY_ERROR, shell("gpu start\n"));
        assertEquals("mendline: Failed to start vGPU memory collector\n", err());
    }

    @Test
    void sessionAloneWaitsForTheWorkerAndStops() {
        long before = library.now();
        assertEquals(ExitCodes.OK, run("session", "101"));
        assertTrue(library.now() - before < 1_000, "took " + (library.now() - before));
        assertEquals(1, library.count("StartCollector"));
        assertEquals("StopCollector", library.requests.get(library.requests.size() - 1)
                .replaceAll(".*<opcode>|</opcode>.*", ""));
        // The first counters that were seen may have been half a record.
        assertEquals("""
                display 101
                CHANNEL    RECEIVED        SENT
                image     404.0 KiB   404.0 KiB
                audio     404.0 KiB   404.0 KiB
                cdr       404.0 KiB   404.0 KiB
                FRAMES/s  ROUND TRIP  UPLINK BANDWIDTH  UPLINK LOSS
                      29          29                29            -
                """, out());
        assertEquals("", err());
    }

    @Test
    void aSessionThatReportsNothingIsShownForWhatItIs() {
        long before = library.now();
        assertEquals(ExitCodes.OK, run("session", "102"));
        assertTrue(library.now() - before >= 5_000, "took " + (library.now() - before));
        assertTrue(library.now() - before < 6_000, "took " + (library.now() - before));
        assertTrue(out().contains("cdr             0 B         0 B\n"), out());
        assertTrue(out().endsWith("       0           0                 0            0\n"), out());
        assertTrue(err().startsWith("hint: display 102 has reported nothing since the start"), err());
        err.reset();
        assertEquals(ExitCodes.OK, run("session", "102", "--count", "3"));
        assertEquals(1, err().split("hint", -1).length - 1, err());
    }

    @Test
    void sessionSaysWhatIsNoDisplayAndStops() {
        assertEquals(ExitCodes.LIBRARY_ERROR, run("session", "99"));
        assertTrue(err().startsWith("mendline: no such display in the range: 99; "), err());
        assertEquals("", out());
        assertEquals(1, library.count("StopCollector"));
        // The guard keeps this one from the library.
        assertEquals(ExitCodes.REFUSED, run("session", "160"));
        assertTrue(err().contains("one record beyond the session table"), err());
        assertEquals(1, library.count("ProtocolInfo"));
        assertEquals(2, library.count("StopCollector"));
    }

    @Test
    void aFailedStartEndsSession() {
        library.startFails = true;
        assertEquals(ExitCodes.LIBRARY_ERROR, run("session", "101"));
        assertEquals(0, library.count("ProtocolInfo"));
        assertEquals("", out());
    }

    @Test
    void theShellShowsASessionAtOnce() {
        assertEquals(ExitCodes.OK, shell("start\nsession 101\n"));
        assertEquals(1, library.count("ProtocolInfo"));
        assertTrue(err().contains("hint: display 101 has reported nothing"), err());
        err.reset();
        assertEquals(ExitCodes.REFUSED, shell("session 101\nstart\nstop\nsession 101\n"));
        assertEquals(1, library.count("ProtocolInfo"));
        assertEquals(2, err().split("so there is no session table; use start", -1).length - 1,
                err());
    }

    @Test
    void aCountOfReadingsHasSpeeds() {
        assertEquals(ExitCodes.OK, shell("start\nwait\nsession 101 --count 3 --interval 2\n"
                + "loglevel\n"));
        String[] readings = out().substring(out().indexOf("display")).split("\n\n");
        assertEquals(3, readings.length, out());
        assertTrue(readings[0].startsWith("display 101, reading 1 of 3\n"), out());
        assertTrue(readings[0].matches("(?s).*cdr  +[0-9.]+ KiB +-  +[0-9.]+ KiB +-\n.*"), out());
        // 2048 bytes in a millisecond are 2 000 KiB in a second, and 3.9 MiB in two.
        assertTrue(readings[1].contains("cdr         4.7 MiB     2.0 MiB     4.7 MiB     2.0 MiB\n"),
                out());
        assertTrue(readings[2].contains("cdr         8.6 MiB     2.0 MiB     8.6 MiB     2.0 MiB\n"),
                out());
        assertTrue(readings[2].endsWith("INFO\n"), out());
        assertEquals("", err().replaceAll("waiting.*\n", ""));
    }

    @Test
    void aSpeedIsThatSinceTheReadingBefore() {
        // From the third reading on nothing moves.
        library.onSleep = () -> {
            if (library.count("ProtocolInfo") == 2) {
                library.canned = FakeLibrary.HEAD + "<protocol>"
                        + FakeLibrary.flare(9_000_000, "29", "0") + "</protocol>";
            }
        };
        assertEquals(ExitCodes.OK, shell("start\nsession 101 --count 4\n"));
        String[] readings = out().split("\n\n");
        assertFalse(readings[2].contains(" 0 B"), out());
        assertTrue(readings[3].contains("cdr         8.6 MiB         0 B     8.6 MiB         0 B\n"),
                out());
    }

    @Test
    void aCounterThatWentBackHasNoSpeed() {
        library.growth = -1;
        assertEquals(ExitCodes.OK, run("session", "101", "--count", "2"));
        assertEquals(6, out().lines().filter(l -> l.matches("(image|audio|cdr) .* -  .* -")).count(),
                out());
    }

    @Test
    void sessionPrintsJson() {
        assertEquals(ExitCodes.OK, run("session", "101", "--json"));
        String line = "{\"display\":\"101\",\"audio_recv_bytes\":413696,"
                + "\"audio_transmit_bytes\":413696,\"cdr_recv_bytes\":413696,"
                + "\"cdr_transmit_bytes\":413696,\"image_frames_per_second\":29,"
                + "\"image_recv_bytes\":413696,\"image_transmit_bytes\":413696,\"session_rtt\":29,"
                + "\"session_bandwidth_uplink\":29,\"session_packet_loss_uplink\":null";
        assertEquals(line + "}\n", out());
        out.reset();
        assertEquals(ExitCodes.OK, run("session", "101", "--json", "--count=2"));
        String[] lines = out().split("\n");
        assertEquals(2, lines.length, out());
        assertEquals(line + ",\"per_second\":{\"audio_recv_bytes\":null,"
                + "\"audio_transmit_bytes\":null,\"cdr_recv_bytes\":null,"
                + "\"cdr_transmit_bytes\":null,\"image_recv_bytes\":null,"
                + "\"image_transmit_bytes\":null}}", lines[0]);
        assertTrue(lines[1].contains("\"per_second\":{\"audio_recv_bytes\":2048000,"), lines[1]);
    }

    @Test
    void watchingASessionInTheShellEndsWithEnter() {
        terminal = new Terminal(true, true, true, true);
        assertEquals(ExitCodes.OK, shell("start\nsession 101 --watch\n\nloglevel\n"));
        assertEquals(1, library.count("ProtocolInfo"));
        assertTrue(out().contains("\u001b[H\u001b[2Jdisplay 101, reading 1\n"), out());
        assertTrue(out().endsWith("INFO\n"), out());
    }

    @Test
    void countedReadingsTakeNoCommandForAnEnter() {
        terminal = new Terminal(true, true, true, true);
        assertEquals(ExitCodes.OK, shell("start\nsession 101 --count 2\nloglevel\n"));
        assertEquals(2, library.count("ProtocolInfo"));
        assertFalse(out().contains("\u001b"), out());
        assertTrue(out().endsWith("INFO\n"), out());
        terminal = new Terminal(false, false, false, true);
        out.reset();
        assertEquals(ExitCodes.OK, shell("start\nsession 101 --watch --count 2\nloglevel\n"));
        assertTrue(out().endsWith("INFO\n"), out());
        assertTrue(out().contains("reading 2 of 2"), out());
    }

    @Test
    void watchingASessionAloneEndsWhenOutputIsGone() {
        PrintStream closing = new PrintStream(out, true, StandardCharsets.UTF_8) {
            @Override
            public boolean checkError() {
                return library.now() > 9_000;
            }
        };
        Connection connection = new Connection(library,
                new SessionTableGuard(previous -> DisplayRange.DEFAULT));
        assertEquals(ExitCodes.OK, Main.run(new ConsoleContext(new ByteArrayInputStream(in), closing,
                new PrintStream(err, true, StandardCharsets.UTF_8), terminal, connection, location,
                library), "session", "101", "--watch", "--json"));
        assertEquals(4, out().lines().distinct().count(), out());
        assertEquals(1, library.count("StopCollector"));
    }

    @Test
    void endAloneTakesOneTickAndNoQuestionWhereItIsTold() {
        long before = library.now();
        assertEquals(ExitCodes.OK, run("end", "2", "--yes"));
        assertTrue(library.now() - before < 2_000, "took " + (library.now() - before));
        assertEquals("ended process 2 of alice, 16m40s old: sec\uFFFDond\n", out());
        assertFalse(err().contains("[y/N]"), err());
        assertTrue(library.requests.contains("<MendlineOperation><opcode>EndProcess</opcode>"
                + "<processId>2</processId><createTime>1000</createTime></MendlineOperation>"));
        assertEquals(1, library.count("StopCollector"));
    }

    @Test
    void endAsksBeforeItSends() {
        terminal = new Terminal(true, true, true, true);
        for (String answer : new String[] {"", "\n", "n\n", "yep\n", "no y\n"}) {
            in = answer.getBytes(StandardCharsets.UTF_8);
            assertEquals(ExitCodes.REFUSED, run("end", "2"), answer);
        }
        assertEquals(0, library.count("EndProcess"));
        assertEquals(5, library.count("StopCollector"));
        assertEquals("", out());
        assertTrue(err().contains("End process 2 of alice, 16m40s old: sec\uFFFDond? [y/N] "), err());
        assertTrue(err().contains("nothing was done: the answer was \"yep\", not y or yes"), err());
        for (String answer : new String[] {"y\n", "Yes\n", " Y "}) {
            in = answer.getBytes(StandardCharsets.UTF_8);
            library.ignoresSigterm = true;
            assertEquals(ExitCodes.OK, run("end", "2"), answer);
        }
        assertEquals(3, library.count("EndProcess"));
    }

    @Test
    void endWithNobodyToAskIsRefusedBeforeAnythingIsStarted() {
        in = "y\n".getBytes(StandardCharsets.UTF_8);
        assertEquals(ExitCodes.USAGE, run("end", "2"));
        assertTrue(err().contains("--yes is needed"), err());
        assertEquals(0, library.requests.size());
    }

    @Test
    void aShellWithoutTerminalTakesTheNextLineForTheAnswer() {
        assertEquals(ExitCodes.REFUSED, shell("start\nwait\nend 2\nloglevel\nloglevel DEBUG\n"));
        assertEquals(0, library.count("EndProcess"));
        assertEquals(0, library.count("GetLogLevel"));
        assertEquals(1, library.count("SetLogLevel"));
        assertTrue(err().contains("sec\uFFFDond? [y/N] \nmendline: nothing was done: the answer was"
                + " \"loglevel\", not y or yes\n"), err());
        assertEquals(ExitCodes.OK, shell("start\nwait\nend 2\ny\nloglevel\n"));
        assertEquals(1, library.count("EndProcess"));
        assertEquals(1, library.count("GetLogLevel"));
    }

    @Test
    void aProcessThatStaysIsSaidToStay() {
        library.ignoresSigterm = true;
        assertEquals(ExitCodes.OK, run("end", "2", "--yes"));
        assertEquals("still there after SIGTERM: process 2 of alice, 16m40s old: sec\uFFFDond\n",
                out());
        assertTrue(err().contains("hint: the signal was sent, but process 2 is still in"), err());
        out.reset();
        assertEquals(ExitCodes.OK, run("end", "2", "--yes", "--json"));
        assertEquals("{\"id\":2,\"create_time\":1000,\"terminatedProcessName\":\"sec\uFFFDond\","
                + "\"still_there\":true}\n", out());
        library.ignoresSigterm = false;
        assertEquals(ExitCodes.REFUSED, shell("start\nwait\nend 2 --json\nn\n"));
        assertEquals(2, library.count("EndProcess"));
        out.reset();
        assertEquals(ExitCodes.OK, run("end", "2", "--yes", "--json"));
        assertTrue(out().endsWith("\"still_there\":false}\n"), out());
    }

    @Test
    void noNameCanPushTheQuestionAwayOrBeObeyed() {
        library.secondName = "\u202e\u009b2J\n" + " ".repeat(200) + "? [y/N] y";
        library.owner = "\u202e" + "o".repeat(40);
        assertEquals(ExitCodes.OK, shell("start\nwait\nend 2\ny\n"));
        String owner = "process 2 of \\u202e" + "o".repeat(13) + "…, 16m40s old: ";
        String name = "\\u202e\\x9b2J\\x0a" + " ".repeat(43) + "…";
        assertTrue(err().contains("End " + owner + name + "? [y/N] \n"), err());
        assertTrue(out().contains("ended " + owner + name + "\n"), out());
    }

    @Test
    void theNameAfterwardsIsTheLibrarys() {
        library.endedName = "another";
        library.owner = "";
        assertEquals(ExitCodes.OK, run("end", "2", "--yes"));
        assertEquals("ended process 2 of an unknown user, 16m40s old: another\n", out());
    }

    @Test
    void endSaysWhyItMayHaveFailed() {
        library.endError = "Failed to terminate process";
        assertEquals(ExitCodes.LIBRARY_ERROR, run("end", "2", "--yes"));
        assertTrue(err().endsWith("mendline: Failed to terminate process 2: it has gone, its id"
                + " belongs to another process now, or this account may not end it;"
                + " /var/log/norvane/tarnhost-mendline.log says which\n"), err());
        assertEquals("", out());
        library.endError = "Miss some parameters";
        assertEquals(ExitCodes.LIBRARY_ERROR, run("end", "2", "--yes"));
        assertTrue(err().endsWith("mendline: Miss some parameters\n"), err());
    }

    @Test
    void endKnowsWhomItMayNotAskFor() {
        assertEquals(ExitCodes.LIBRARY_ERROR, run("end", "3", "--yes"));
        assertTrue(err().contains("no process 3 in the figures, which are of the tick at 86405 s"),
                err());
        library.createTime = 0;
        assertEquals(ExitCodes.REFUSED, run("end", "2", "--yes"));
        assertTrue(err().contains("could not work out when process 2 began"), err());
        assertEquals(0, library.count("EndProcess"));
    }

    @Test
    void agesBeyondAllClocksAreNotMadeUp() {
        library.createTime = -1;
        assertEquals(ExitCodes.OK, run("end", "2", "--yes"));
        assertTrue(out().startsWith("ended process 2 of alice, of unknown age: sec"), out());
        assertTrue(library.requests.stream()
                .anyMatch(r -> r.contains("<createTime>18446744073709551615</createTime>")));
    }

    @Test
    void theShellKeepsOneCollector() {
        assertEquals(ExitCodes.OK, shell("start\nwait 2\nprocesses --limit 15\nstop\n"));
        assertEquals(1, library.count("StartCollector"));
        assertEquals(1, library.count("StopCollector"));
        assertEquals(0, library.sleptForever);
        assertTrue(out().startsWith("Succeed to start collector\nall 2 processes"), out());
        assertTrue(out().endsWith("Finish to stop collector\n"), out());
        assertTrue(out().contains(" 20 "), out());
        assertFalse(err().contains("mendline>"), err());
    }

    @Test
    void theFirstWaitCountsATickThatHasAlreadyCome() {
        library.startTakes = 500;
        long before = library.now();
        assertEquals(ExitCodes.OK, shell("start\nwait 2\n"));
        assertTrue(library.now() - before < 32_000, "took " + (library.now() - before));
        // The next wait is for a tick that is still to come.
        before = library.now();
        assertEquals(ExitCodes.OK, shell("start\nwait\nwait\n"));
        assertTrue(library.now() - before > 29_000, "took " + (library.now() - before));
    }

    @Test
    void theShellStopsWhatWasLeftRunning() {
        assertEquals(ExitCodes.OK, shell("start\nexit\nloglevel\n"));
        assertEquals(1, library.count("StopCollector"));
        assertEquals(0, library.count("GetLogLevel"));
    }

    @ParameterizedTest
    @CsvSource({"loglevel, 0", "nonsense, 2", "loglevel X;loglevel, 1", "nonsense;loglevel X, 1",
        "loglevel X;nonsense;loglevel, 2", "request '" + CLEAR + "', 4", "\"unclosed;loglevel, 2",
        "processes, 4", "start;processes, 4", "wait, 4", "start;wait 0, 2", "request -, 2",
        "start;processes --watch, 2", "# nothing, 0", "'', 0", "quit;nonsense, 0", "help, 0",
        "help wait, 0", "processes --help, 0", "shell, 2", "load, 4", "start;load, 4",
        "history bob 1, 4", "history x 1, 1", "history bob, 2", "gpu, 2", "gpu start --help, 0",
        "session 101, 4", "start;session 101, 0", "start;stop;session 101, 4",
        "start;session 99, 1", "start;session 160, 4", "start;session 101 --watch, 2",
        "start;session 101 --watch --count 2, 0", "end 2, 4", "start;end 2, 4",
        "start;wait;end 2;y, 0", "start;wait;end 3 --yes, 1", "start;wait;end 2, 4"})
    void theShellGoesOnAndExitsWithTheLastFailure(String script, int code) {
        assertEquals(code, shell(script.replace(';', '\n')));
    }

    @Test
    void theShellSaysWhyThereAreNoFigures() {
        shell("processes\nstart\nprocesses\nwait\nprocesses\nstop\nprocesses\n");
        assertTrue(err().contains("no collector has been started"), err());
        assertTrue(err().contains("first tick is still to come"), err());
        assertTrue(err().contains("a first tick reads 0"), err());
        assertTrue(err().contains("figures of its last tick"), err());
    }

    @Test
    void theShellLetsTheTableBeReachedOnlyWhileACollectorRuns() {
        String clear = "request '" + CLEAR + "'\n";
        assertEquals(ExitCodes.OK, shell("start\n" + clear));
        assertEquals(ExitCodes.REFUSED, shell("start\nstop\n" + clear));
        assertEquals(1, library.count("ClearShm"));
    }

    @Test
    void anInteractiveShellPromptsOnStandardErrorAndSucceeds() {
        terminal = new Terminal(true, false, true, true);
        assertEquals(ExitCodes.OK, shell("nonsense\n"));
        assertTrue(err().startsWith("mendline> mendline: unknown command"), err());
        assertEquals("", out());
    }

    @Test
    void watchingInTheShellEndsWithEnter() {
        terminal = new Terminal(true, false, true, true);
        // Input is at hand at once, so the watch ends after its first table and takes that line.
        assertEquals(ExitCodes.OK, shell("start\nwait 2\nprocesses --watch --json\n\nloglevel\n"));
        assertEquals(1, out().split("\"timestamp\"", -1).length - 1);
        assertTrue(out().endsWith("INFO\n"), out());
    }

    @Test
    void watchingAloneShowsTickAfterTickUntilOutputIsGone() {
        PrintStream closing = new PrintStream(out, true, StandardCharsets.UTF_8) {
            @Override
            public boolean checkError() {
                return library.now() > 130_000;
            }
        };
        Connection connection = new Connection(library,
                new SessionTableGuard(previous -> DisplayRange.DEFAULT));
        int code = Main.run(new ConsoleContext(new ByteArrayInputStream(in), closing,
                new PrintStream(err, true, StandardCharsets.UTF_8), terminal, connection, location,
                library), "processes", "--watch", "--json");
        assertEquals(ExitCodes.OK, code);
        assertEquals(4, out().lines().count(), out());
        assertEquals(4, out().lines().distinct().count(), out());
        assertEquals(1, library.count("StopCollector"));
    }

    @Test
    void aDefectIsToldApartFromTheRest() {
        library.onSleep = () -> {
            throw new IllegalStateException("broken\u001b");
        };
        assertEquals(ExitCodes.INTERNAL, run("processes"));
        assertTrue(err().contains("internal error"), err());
        assertFalse(err().contains("\u001b"), err());
    }
}
