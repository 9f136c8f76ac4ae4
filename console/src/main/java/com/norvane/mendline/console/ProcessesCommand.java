package com.norvane.mendline.console;

import java.io.PrintStream;
import java.util.List;
import java.util.function.BooleanSupplier;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;

/** Shows the processes of the host. */
@Command(name = "processes",
        description = {
            "Show the processes of the host with their CPU, memory and disk figures.",
            "",
            "On its own this command starts a collector, waits for the second tick (about 31"
                + " seconds: the first has nothing to compare with and reads 0), prints and stops"
                + " it. In the shell it shows the latest tick at once. What `start --help` says"
                + " about a running agent applies.",
            "",
            "CPU is in whole percent of all CPUs of the host, DISK in bytes read and written during"
                + " the last interval of 30 seconds. A dash stands for no figure; after a collector"
                + " was stopped and started again, that is the CPU figure of every process.",
            "Characters in names that a terminal would obey or hide are written as \\x1b or \\u202e.",
        })
final class ProcessesCommand extends FiguresCommand {

    /** Title, summary and the line of the cursor. */
    private static final int LINES_AROUND = 3;

    @Option(names = "--sort", paramLabel = "KEY", defaultValue = "cpu",
            description = "Largest first by ${COMPLETION-CANDIDATES} (default: cpu).")
    private ProcessOrder order;

    @Option(names = "--limit", paramLabel = "N",
            description = "Show the first N only (default: all; with --watch on a terminal, as many"
                    + " as fit).")
    private Integer limit;

    @Option(names = "--watch",
            description = "Show anew after each tick until Ctrl-C; in the shell until Enter (there"
                    + " Ctrl-C ends the shell).")
    private boolean watch;

    @Option(names = "--json",
            description = "One line of JSON for each tick; memory and disk in bytes, cpu null for"
                    + " no figure.")
    private boolean json;

    ProcessesCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    void check() {
        if (limit != null && limit < 0) {
            throw usage("--limit takes a number that is not negative");
        }
    }

    @Override
    void checkInShell(boolean running) {
        if (watch && !context().terminal().input()) {
            throw usage("--watch in a shell needs a terminal to be ended from;"
                    + " use wait and processes");
        }
        if (watch && !running) {
            throw new ConsoleException(ExitCodes.REFUSED,
                    "no collector is running in this shell: there is nothing to watch; use start");
        }
    }

    @Override
    String firstTick() {
        return "no CPU and disk figures at all: a first tick reads 0; use wait";
    }

    @Override
    void show(BooleanSupplier cancelled) {
        ProcessFigures figures = ProcessFigures.ask(context().connection());
        print(figures);
        while (watch && context().ticks().await(1, figures.timestamp(), false, null, cancelled)) {
            figures = ProcessFigures.ask(context().connection());
            print(figures);
        }
    }

    private void print(ProcessFigures figures) {
        PrintStream out = context().out();
        boolean redraw = watch && !json && context().terminal().output();
        Terminal.Size size = json ? null : Terminal.size();
        long most = limit != null ? limit
                : redraw ? Math.max(1, size.rows() - LINES_AROUND) : Long.MAX_VALUE;
        List<ProcessFigure> shown = figures.processes().stream()
                .sorted(order.comparator()).limit(most).toList();
        if (json) {
            out.println(ProcessJson.render(figures.timestamp(), shown));
        } else {
            if (redraw) {
                out.print("\u001b[H\u001b[2J");
            }
            out.println(DisplayWidth.fit(summary(figures, shown.size()), size.columns()));
            new ProcessTable(size.columns(), context().pacer().epochSeconds()).render(shown)
                    .forEach(out::println);
        }
        out.flush();
    }

    private String summary(ProcessFigures figures, int shown) {
        int all = figures.processes().size();
        return (shown == all ? "all " + all : shown + " of " + all) + " processes by " + order
                + ", tick at " + Long.toUnsignedString(figures.timestamp()) + " s after boot";
    }
}
