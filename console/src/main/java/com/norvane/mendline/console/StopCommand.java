package com.norvane.mendline.console;

import picocli.CommandLine.Command;

/** Stops the collector. */
@Command(name = "stop",
        description = {
            "Stop the collector and remove the session table.",
            "",
            "The collector lives in the process that started it, so this is of use in the shell."
                + " On its own it stops no collector, but it does remove the session table's key"
                + " file, which a collector in another process would miss.",
        })
final class StopCommand extends ConsoleCommand {

    StopCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    public Integer call() {
        int code = print(context().connection().ask(Request.of("StopCollector")), "INFO");
        if (!context().inShell()) {
            context().hint("a collector lives in the process that started it, and this one had"
                    + " none; use `mendline shell`");
        }
        return code;
    }
}
