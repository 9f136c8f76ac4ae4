package com.norvane.mendline.console;

import java.io.PrintStream;
import java.util.Optional;
import java.util.function.BooleanSupplier;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;
import picocli.CommandLine.Parameters;

/** Ends one process of the host. */
@Command(name = "end",
        description = {
            "Send SIGTERM to one process of the host, once.",
            "",
            "The process has to be in the collector's figures: from there this command takes the"
                + " time at which it began, so that another process that has got the same number"
                + " meanwhile is left alone. On its own this command starts a collector, waits for"
                + " its first tick, which comes at once, and stops it in the end. In the shell it"
                + " uses the latest tick. What `start --help` says about a running agent applies.",
            "",
            "It shows the process and asks before it sends anything. In a shell whose input is no"
                + " terminal, the answer is the next line of that input.",
            "A process may ignore the signal or take its time: this command says so if it is still"
                + " there, and its exit code is 0 all the same. Nothing stronger is sent.",
        })
final class EndCommand extends FiguresCommand {

    private static final String FAILED = "Failed to terminate process";
    private static final String LOG = "/var/log/norvane/tarnhost-mendline.log";
    /** A name is up to 254 bytes of its owner's choice, and must not push the question away. */
    private static final int WIDEST_NAME = 60;
    private static final int WIDEST_OWNER = 20;

    @Parameters(paramLabel = "PID", description = "The id of the process.")
    private int pid;

    @Option(names = "--yes", description = "Do not ask; needed where nobody can be asked.")
    private boolean yes;

    @Option(names = "--json",
            description = "One line of JSON with the library's names, and in still_there whether the"
                    + " process is still in the figures.")
    private boolean json;

    EndCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    void check() {
        if (pid < 1) {
            throw usage("PID has to be at least 1");
        }
        if (!yes && !context().inShell() && !context().terminal().input()) {
            throw usage("standard input is no terminal to ask on: --yes is needed");
        }
    }

    /** Who a process is stands in its first tick already. */
    @Override
    int ticks() {
        return 1;
    }

    @Override
    String firstTick() {
        return null;
    }

    @Override
    void show(BooleanSupplier cancelled) {
        ProcessFigures figures = ProcessFigures.ask(context().connection());
        ProcessFigure process = figures.processes().stream().filter(p -> p.id() == pid).findFirst()
                .orElseThrow(() -> new ConsoleException(ExitCodes.LIBRARY_ERROR, "no process " + pid
                        + " in the figures, which are of the tick at "
                        + Long.toUnsignedString(figures.timestamp())
                        + " s after boot; a younger one comes with the next tick"));
        if (process.createTime() == 0) {
            throw new ConsoleException(ExitCodes.REFUSED, "refused: the library could not work out"
                    + " when process " + pid + " began, and ends none without that");
        }
        if (!yes) {
            confirm(process);
        }
        String name = end(process);
        boolean stillThere = ProcessFigures.ask(context().connection()).processes().stream()
                .anyMatch(p -> p.id() == pid && p.createTime() == process.createTime());
        print(process, name, stillThere);
    }

    private void confirm(ProcessFigure process) {
        PrintStream err = context().err();
        context().out().flush();
        // Not to standard output, which may go to a file.
        err.print("End " + describe(process, process.name()) + "? [y/N] ");
        err.flush();
        Optional<String> answer = context().nextLine();
        if (answer.isEmpty() || !context().terminal().input()) {
            err.println();
        }
        String word = answer.map(String::strip).orElse("");
        if (!word.equalsIgnoreCase("y") && !word.equalsIgnoreCase("yes")) {
            // Quoted, because it may have been meant as a command.
            throw new ConsoleException(ExitCodes.REFUSED, "nothing was done: the answer was "
                    + (word.isEmpty() ? "" : "\"" + DisplayWidth.fit(word, WIDEST_NAME) + "\", ")
                    + "not y or yes");
        }
    }

    private String end(ProcessFigure process) {
        Answer answer = context().connection().ask(Request.of("EndProcess")
                .with("processId", Integer.toString(pid))
                .with("createTime", Long.toUnsignedString(process.createTime())));
        if (answer.error().filter(FAILED::equals).isPresent()) {
            throw new ConsoleException(ExitCodes.LIBRARY_ERROR, FAILED + " " + pid + ": it has gone,"
                    + " its id belongs to another process now, or this account may not end it; "
                    + LOG + " says which");
        }
        return answer.expect("terminatedProcessName").getTextContent();
    }

    private void print(ProcessFigure process, String name, boolean stillThere) {
        PrintStream out = context().out();
        if (json) {
            out.println("{\"id\":" + pid + ",\"create_time\":"
                    + Long.toUnsignedString(process.createTime()) + ",\"terminatedProcessName\":"
                    + Json.string(name) + ",\"still_there\":" + stillThere + "}");
        } else {
            out.println((stillThere ? "still there after SIGTERM: " : "ended ")
                    + describe(process, name));
        }
        out.flush();
        if (stillThere) {
            context().hint("the signal was sent, but process " + pid + " is still in the figures: it"
                    + " ignores the signal, needs longer, or waits for its parent to notice its end");
        }
    }

    /** The name comes last: whatever it holds, it can be taken for nothing else. */
    private String describe(ProcessFigure process, String name) {
        String age = process.age(context().pacer().epochSeconds()).map(a -> a + " old")
                .orElse("of unknown age");
        String owner = process.userName().isEmpty() ? "an unknown user"
                : DisplayWidth.fit(TerminalText.line(process.userName()), WIDEST_OWNER);
        return "process " + pid + " of " + owner + ", " + age + ": "
                + DisplayWidth.fit(TerminalText.line(name), WIDEST_NAME);
    }
}
