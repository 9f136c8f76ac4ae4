package com.norvane.mendline.console;

import java.io.PrintStream;
import java.math.BigInteger;
import java.util.Map;
import java.util.function.BooleanSupplier;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;
import picocli.CommandLine.Parameters;

/**
 * Shows the live counters of one session. They are read from the session table when they are asked
 * for, so unlike other figures they need no tick, but they do need a table.
 */
@Command(name = "session",
        description = {
            "Show the live counters of the session on one display, once or again and again.",
            "",
            "On its own this command starts a collector, which makes an empty session table; waits"
                + " until the worker has written to it, for 5 seconds at most; shows the counters and"
                + " stops the collector. In the shell it shows what stands in the table now. What"
                + " `start --help` says about a running agent applies.",
            "",
            "The byte counters belong to the image, audio and cdr channels; per s is how fast they"
                + " grew since the reading before. The other figures are whole numbers with the"
                + " fraction cut off, in units that the worker knows and the library does not. A"
                + " dash stands for no figure: packet loss that the worker does not measure, and the"
                + " speed of a counter that went back. A figure of a million or more is written as"
                + " 1.23e6; one of about 1.84e19 was negative when the worker wrote it.",
            "All zeros mean that nothing has been reported since the start: there is no session, or"
                + " its worker has not noticed the new table yet.",
        })
final class SessionCommand extends ConsoleCommand {

    /** How long the worker gets to notice a new table. */
    private static final long PATIENCE = 5_000;
    /** A record is written figure by figure; until the rest of them is there. */
    private static final long REST = 200;
    private static final long POLL = 100;

    @Parameters(paramLabel = "DISPLAY",
            description = "The number of the display, without a colon.")
    private String display;

    @Option(names = "--watch",
            description = "Show anew at each interval until Ctrl-C; in the shell until Enter (there"
                    + " Ctrl-C ends the shell).")
    private boolean watch;

    @Option(names = "--count", paramLabel = "N",
            description = "Show N readings, one below the other unless --watch redraws them.")
    private Integer count;

    @Option(names = "--interval", paramLabel = "SECONDS",
            description = "Time between two readings of --watch or --count (default: 1).")
    private Integer interval;

    @Option(names = "--json",
            description = "One line of JSON for each reading, with the library's names; null for no"
                    + " figure. With --watch or --count, per_second holds the speeds.")
    private boolean json;

    private record Reading(SessionFigures figures, long at) {
    }

    SessionCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    public Integer call() {
        check();
        if (context().inShell()) {
            showInShell();
        } else {
            showAlone();
        }
        return ExitCodes.OK;
    }

    private void check() {
        // The library would take ":101" for no number, and "101x" for 101.
        if (!display.matches("[0-9]+")) {
            throw usage("DISPLAY is a number without a colon, such as 101");
        }
        if (count != null && count < 1) {
            throw usage("--count has to be at least 1");
        }
        if (interval != null && interval < 1) {
            throw usage("--interval has to be at least 1");
        }
        if (interval != null && !series()) {
            throw usage("--interval is for --watch and --count");
        }
    }

    private boolean series() {
        return watch || count != null;
    }

    private void showAlone() {
        context().startCollector();
        try {
            // Without the check a watch would outlive the pager that it writes to.
            show(awaitWorker(), () -> context().out().checkError());
        } finally {
            context().connection().ask(Request.of("StopCollector"));
        }
    }

    private void showInShell() {
        boolean terminal = context().terminal().input();
        if (watch && count == null && !terminal) {
            throw usage("--watch in a shell needs a terminal to be ended from; use --count");
        }
        if (!context().connection().collectorMayRun()) {
            throw new ConsoleException(ExitCodes.REFUSED,
                    "no collector is running in this shell, so there is no session table; use start");
        }
        // Anywhere else the next line of input is the next command.
        show(read(), watch && terminal ? context()::enterPressed
                : () -> context().out().checkError());
    }

    private Reading read() {
        SessionFigures figures = SessionFigures.ask(context().connection(), display)
                .orElseThrow(() -> new ConsoleException(ExitCodes.LIBRARY_ERROR,
                        "no such display in the range: " + display + "; it goes from"
                                + " Desktop.displayNumberMin to Desktop.displayNumberMax of "
                                + DisplayRange.CONFIGURATION + ", or else from "
                                + DisplayRange.DEFAULT.min() + " to " + DisplayRange.DEFAULT.max()));
        return new Reading(figures, context().pacer().now());
    }

    private Reading awaitWorker() {
        Reading first = read();
        Reading latest = first;
        while (latest.figures().untouched()) {
            if (latest.at() - first.at() >= PATIENCE) {
                return latest;
            }
            context().pacer().sleep(POLL);
            latest = read();
        }
        context().pacer().sleep(REST);
        return read();
    }

    /** @param cancelled whether a series shall end */
    private void show(Reading first, BooleanSupplier cancelled) {
        Reading before = null;
        Reading latest = first;
        for (long number = 1;; number++) {
            print(latest, before, number);
            if (!series() || count != null && number == count
                    || !pause(latest.at(), cancelled)) {
                return;
            }
            before = latest;
            latest = read();
        }
    }

    /** @return false if cancelled */
    private boolean pause(long since, BooleanSupplier cancelled) {
        long until = since + (interval == null ? 1 : interval) * 1000L;
        while (!cancelled.getAsBoolean()) {
            long left = until - context().pacer().now();
            if (left <= 0) {
                return true;
            }
            context().pacer().sleep(Math.min(POLL, left));
        }
        return false;
    }

    private void print(Reading latest, Reading before, long number) {
        PrintStream out = context().out();
        Map<SessionCounter, BigInteger> rates = !series() ? null
                : SessionText.rates(latest.figures(), before == null ? null : before.figures(),
                        before == null ? 0 : latest.at() - before.at());
        if (json) {
            out.println(SessionText.json(display, latest.figures(), rates));
        } else {
            if (watch && context().terminal().output()) {
                out.print("\u001b[H\u001b[2J");
            } else if (number > 1) {
                out.println();
            }
            out.println(title(number));
            SessionText.lines(latest.figures(), rates).forEach(out::println);
        }
        out.flush();
        if (number == 1 && latest.figures().untouched()) {
            context().hint("display " + display + " has reported nothing since the start: there is"
                    + " no session, or its worker has not noticed the table yet");
        }
    }

    private String title(long number) {
        return "display " + display + (!series() ? "" : ", reading " + number
                + (count == null ? "" : " of " + count));
    }
}
