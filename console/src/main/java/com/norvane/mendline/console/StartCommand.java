package com.norvane.mendline.console;

import picocli.CommandLine.Command;

/** Starts the collector. */
@Command(name = "start",
        description = {
            "Start the collector, which takes figures every 30 seconds.",
            "",
            "The collector lives in the process that starts it, and so do its figures. On its own"
                + " this command therefore stays in the foreground until it is interrupted"
                + " (Ctrl-C or SIGTERM), stops the collector and ends with the signal's usual exit"
                + " code. In the shell it returns at once.",
            "",
            "The session table belongs to the host, though: a start empties it and a stop removes"
                + " it, also for another process that has a collector. Do not use this next to a"
                + " running agent.",
        })
final class StartCommand extends ConsoleCommand {

    StartCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    public Integer call() {
        int code = print(context().startCollector(), "INFO");
        if (!context().inShell()) {
            context().hint("the collector lives in this process, which now waits for Ctrl-C;"
                    + " to use its figures, start it in `mendline shell`");
            context().out().flush();
            context().pacer().sleepForever();
        }
        return code;
    }
}
