package com.norvane.mendline.console;

import picocli.CommandLine.Command;

/** Holds the commands for GPU figures together. */
@Command(name = "gpu", description = "GPU memory as part of the load figures.")
final class GpuCommand extends ConsoleCommand {

    GpuCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    public Integer call() {
        throw usage("which command?");
    }
}
