package com.norvane.mendline.console;

import picocli.CommandLine.Command;

/** Starts the GPU memory figures. */
@Command(name = "start",
        description = {
            "Let `load` compare the host's memory with that of its NVIDIA GPUs and show the fullest.",
            "",
            "It fails where the NVIDIA management library cannot be used or the agent's X"
                + " configuration, xorg.conf in /usr/lib/norvane/tarnhost/resources/X11, names no"
                + " GPU; the library's log says which. The GPU figures live in this process and end"
                + " with stop. A later start of the collector does not bring them back: use this"
                + " command again.",
            "",
            "Hazard: where the NVIDIA management library works, a line of the agent's X"
                + " configuration that names a BusID without a colon in it makes the library raise"
                + " an exception, which ends this process at once and leaves a collector's session"
                + " table behind. Look at that file first.",
        })
final class GpuStartCommand extends ConsoleCommand {

    GpuStartCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    public Integer call() {
        int code = print(context().connection().ask(Request.of("StartvGPUMemoryCollector")), "INFO");
        if (!context().inShell()) {
            context().hint("the GPU figures live in this process, which now ends; use"
                    + " `mendline shell`");
        }
        return code;
    }
}
