package com.norvane.mendline.console;

import java.io.BufferedReader;
import java.io.IOException;
import java.util.List;
import picocli.CommandLine;
import picocli.CommandLine.Command;

/** Runs commands line by line in one process, which is what a collector needs to be of use. */
@Command(name = "shell",
        description = {
            "Take commands line by line, in one process with one collector.",
            "",
            "The commands are those of mendline itself and, here only, wait, help, exit and quit."
                + " Quotes and backslashes work as in a POSIX shell; a line that begins with # is a"
                + " comment. A command that fails does not end the shell. The collector is stopped"
                + " at the end.",
            "",
            "When standard input is not a terminal there is no prompt, and the exit code is that of"
                + " the last command that failed.",
        },
        footer = {
            "Example:",
            "  printf 'start\\nwait 2\\nprocesses --limit 15\\nstop\\n' | mendline shell",
        })
final class ShellCommand extends ConsoleCommand {

    ShellCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    public Integer call() throws IOException {
        context().enterShell();
        boolean interactive = context().terminal().input();
        CommandLine commands = Commands.shell(context());
        BufferedReader lines = context().lines();
        int lastFailure = ExitCodes.OK;
        while (true) {
            if (interactive) {
                // Not to standard output, which may go to a file.
                context().err().print("mendline> ");
                context().err().flush();
            }
            String line = lines.readLine();
            if (line == null) {
                if (interactive) {
                    context().err().println();
                }
                break;
            }
            int code = ExitCodes.OK;
            try {
                List<String> words = ShellWords.split(line);
                if (words.equals(List.of("exit")) || words.equals(List.of("quit"))) {
                    break;
                }
                if (!words.isEmpty()) {
                    code = commands.execute(words.toArray(String[]::new));
                }
            } catch (ConsoleException e) {
                context().complain(e.getMessage());
                code = e.exitCode();
            }
            context().out().flush();
            if (code != ExitCodes.OK) {
                lastFailure = code;
            }
        }
        return interactive ? ExitCodes.OK : lastFailure;
    }
}
