package com.norvane.mendline.console;

import java.util.function.BooleanSupplier;
import picocli.CommandLine.Command;
import picocli.CommandLine.Option;

/** Shows how busy the host is. */
@Command(name = "load",
        description = {
            "Show the five figures of the host that load balancers use.",
            "",
            "On its own this command starts a collector, waits for the second tick (about 31"
                + " seconds: the first compares with nothing, so its figures are averages since"
                + " boot), prints and stops it. In the shell it shows the latest tick at once. What"
                + " `start --help` says about a running agent applies.",
            "",
            "CPU and memory are in percent of the host; memory is that of the fullest GPU where GPU"
                + " figures are collected (see `gpu start --help`) and it is the higher one. Disk"
                + " read and write are milliseconds for each, disk rate is both of them per second:"
                + " the library calls it diskQueue, but it is no length of a queue. A dash stands"
                + " for no figure.",
        })
final class LoadCommand extends FiguresCommand {

    @Option(names = "--json",
            description = "One line of JSON with the library's names; null for what is no number.")
    private boolean json;

    LoadCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    String firstTick() {
        return "a first tick compares with nothing: its figures are averages since boot; use wait";
    }

    @Override
    void show(BooleanSupplier cancelled) {
        LoadFigures figures = LoadFigures.ask(context().connection());
        if (json) {
            context().out().println(LoadText.json(figures));
        } else {
            LoadText.lines(figures).forEach(context().out()::println);
        }
        context().out().flush();
        if (figures.number(LoadFigures.Kind.CPU) == null) {
            context().hint(RESTARTED);
        }
    }
}
