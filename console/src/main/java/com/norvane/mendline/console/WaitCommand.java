package com.norvane.mendline.console;

import picocli.CommandLine.Command;
import picocli.CommandLine.Parameters;

/** Waits for ticks; exists in the shell only, where a collector lives on between commands. */
@Command(name = "wait",
        description = {
            "Wait for ticks of the collector, which come every 30 seconds, with a countdown on"
                + " standard error.",
            "",
            "The first wait after a start counts from that start: \"start\", \"wait 2\" ends with"
                + " real figures after about 31 seconds.",
        })
final class WaitCommand extends ConsoleCommand {

    @Parameters(paramLabel = "TICKS", arity = "0..1", defaultValue = "1",
            description = "How many (default: 1).")
    private int ticks;

    WaitCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    public Integer call() {
        if (ticks < 1) {
            throw usage("TICKS has to be at least 1");
        }
        if (!context().connection().collectorMayRun()) {
            throw new ConsoleException(ExitCodes.REFUSED,
                    "no collector is running in this shell, so no tick will come; use start");
        }
        Long sinceStart = context().takeBaseline();
        long baseline = sinceStart != null ? sinceStart
                : ProcessFigures.ask(context().connection()).timestamp();
        context().ticks().await(ticks, baseline, sinceStart != null, context().countdown(),
                () -> false);
        return ExitCodes.OK;
    }
}
