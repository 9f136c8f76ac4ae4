package com.norvane.mendline.console;

import java.io.PrintStream;
import java.util.function.BooleanSupplier;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;
import picocli.CommandLine.Parameters;

/** Shows the last quarter of an hour of one user's desktop. */
@Command(name = "history",
        description = {
            "Show the last 15 minutes of the host, one user and one display: up to 30 records, one"
                + " for each tick, as a table and below it as one small plot for each figure.",
            "",
            "On its own this command starts a collector, waits for the second tick (about 31"
                + " seconds), prints two records and stops it; a longer history takes a shell. What"
                + " `start --help` says about a running agent applies.",
            "",
            "AGO is minutes and seconds before the latest record. CPU%% and MEM%% are of the whole"
                + " host, READ/s and WRITE/s disk operations per second, DISK ms the time that each"
                + " takes, RTT ms the round trip time of the display. UCPU%% and UMEM%% are what the"
                + " user's processes take, in percent of the whole host. All are whole numbers with"
                + " the fraction cut off, so that a share of 0.6 percent reads 0; a rate over no time"
                + " at all reads 0 as well.",
            "A dash in the table and a blank in a plot stand for no figure: the display had no round"
                + " trip time, the user had no process, or the library had nothing to divide. After a"
                + " collector was stopped and started again in one process there are records without"
                + " figures in every tick, and fewer minutes fit into 30 records.",
            "Each plot goes from the smallest to the largest figure, which stand next to it. The"
                + " oldest record is not in it: the first one after a start of this program is an"
                + " average since boot. A figure of a million or more is written as 1.23e6; one that"
                + " no host reaches comes from a counter that went backwards and is drawn as !.",
            "A narrow terminal gets fewer columns in the table, never fewer plots.",
        })
final class HistoryCommand extends FiguresCommand {

    @Parameters(index = "0", paramLabel = "USER", description = "The name of a user of this host.")
    private String userName;

    @Parameters(index = "1", paramLabel = "DISPLAY",
            description = "The number of the display, without a colon.")
    private String display;

    @Option(names = "--ascii",
            description = "Draw with ASCII characters; the default where the terminal or the locale"
                    + " has no others.")
    private boolean ascii;

    @Option(names = "--json",
            description = "One line of JSON with the library's names; null for no figure.")
    private boolean json;

    HistoryCommand(ConsoleContext context) {
        super(context);
    }

    /** A wrong name shall not take half a minute to be found out. */
    @Override
    void check() {
        ask();
    }

    private History ask() {
        try {
            return History.ask(context().connection(), userName, display);
        } catch (IllegalArgumentException e) {
            throw usage(e.getMessage());
        }
    }

    /** The table says it. */
    @Override
    String firstTick() {
        return null;
    }

    @Override
    void show(BooleanSupplier cancelled) {
        History history = ask();
        if (history.none()) {
            throw new ConsoleException(ExitCodes.REFUSED,
                    "no records yet: the first is made behind the process figures; try again");
        }
        PrintStream out = context().out();
        if (json) {
            out.println(HistoryJson.render(userName, display, history));
        } else {
            int width = Terminal.size().columns();
            boolean unicode = context().terminal().unicode() && !ascii;
            out.println(DisplayWidth.fit(summary(history), width));
            new HistoryTable(width).render(history).forEach(out::println);
            out.println();
            new HistoryPlot(width, unicode).render(history).forEach(out::println);
        }
        out.flush();
        if (history.newest().get(HistoryColumn.OVERALL_CPU) == null) {
            context().hint(RESTARTED);
        }
        if (!history.has(HistoryColumn.USER_CPU, HistoryColumn.USER_MEM)) {
            context().hint("the user " + TerminalText.line(userName)
                    + " had no process in any of these records");
        }
        if (!history.has(HistoryColumn.ROUND_TRIP)) {
            context().hint("display " + TerminalText.line(display) + " had no round trip time in any"
                    + " of these records: no session there, or one that reports none");
        }
    }

    private String summary(History history) {
        int count = history.records().size();
        return TerminalText.line(userName) + ", display " + TerminalText.line(display) + ": " + count
                + (count == 1 ? " record, latest at " : " records, latest at ")
                + Long.toUnsignedString(history.newest().timestamp()) + " s after boot";
    }
}
