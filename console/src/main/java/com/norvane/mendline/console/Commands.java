package com.norvane.mendline.console;

import java.io.PrintWriter;
import java.nio.file.Path;
import java.util.List;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.HelpCommand;
import picocli.CommandLine.IVersionProvider;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.ScopeType;
import picocli.CommandLine.Spec;
import picocli.CommandLine.UnmatchedArgumentException;

/** The command tables of the program and of its shell, and what happens to failures in both. */
final class Commands {

    private Commands() {
    }

    /** A new command that works both ways is added here. */
    private static List<ConsoleCommand> common(ConsoleContext context) {
        return List.of(new RequestCommand(context), new StartCommand(context),
                new StopCommand(context), new ProcessesCommand(context),
                new HistoryCommand(context), new LoadCommand(context),
                new SessionCommand(context), new EndCommand(context),
                new LogLevelCommand(context));
    }

    private static void addCommon(CommandLine commands, ConsoleContext context) {
        common(context).forEach(commands::addSubcommand);
        commands.addSubcommand(new CommandLine(new GpuCommand(context))
                .addSubcommand(new GpuStartCommand(context)));
    }

    static CommandLine program(ConsoleContext context) {
        CommandLine program = new CommandLine(new Program(context));
        addCommon(program, context);
        program.addSubcommand(new ShellCommand(context));
        return configure(program, context, "mendline --help");
    }

    static CommandLine shell(ConsoleContext context) {
        CommandLine shell = new CommandLine(new Shell(context));
        addCommon(shell, context);
        shell.addSubcommand(new WaitCommand(context));
        shell.addSubcommand(new HelpCommand());
        return configure(shell, context, "help");
    }

    private static CommandLine configure(CommandLine commands, ConsoleContext context, String help) {
        commands.setOut(new PrintWriter(context.out(), true));
        commands.setErr(new PrintWriter(context.err(), true));
        // picocli guesses from System.console(), which is wrong for a redirected stream.
        commands.setColorScheme(CommandLine.Help.defaultColorScheme(CommandLine.Help.Ansi.OFF));
        commands.setParameterExceptionHandler((e, arguments) -> {
            context.complain(e instanceof UnmatchedArgumentException unmatched
                    && e.getCommandLine() == commands
                            ? "unknown command or option: " + unmatched.getUnmatched().get(0)
                            : e.getMessage());
            context.hint("see " + help);
            return ExitCodes.USAGE;
        });
        commands.setExecutionExceptionHandler((e, command, result) -> {
            if (e instanceof ConsoleException known) {
                context.complain(known.getMessage());
                return known.exitCode();
            }
            context.complain("internal error: " + e);
            return ExitCodes.INTERNAL;
        });
        return commands;
    }

    /** The program without a command. */
    @Command(name = "mendline", versionProvider = Version.class,
            description = {
                "Ask the native back end of the support console from the command line.",
                "",
                "The library's figures live in the process that loads it, so one command by itself"
                    + " sees none but those it waits for; the shell keeps one process going.",
            },
            footer = "The library is the file named by --library, else by the environment variable"
                    + " MENDLINE_LIBRARY, else the one next to the launcher.")
    private static final class Program extends ConsoleCommand {

        @Spec
        private CommandSpec self;

        @Option(names = {"-V", "--version"}, versionHelp = true, description = "Show the version.")
        private boolean version;

        Program(ConsoleContext context) {
            super(context);
        }

        @Option(names = "--library", paramLabel = "PATH", scope = ScopeType.INHERIT,
                description = "The libmendline.so to load.")
        private void library(Path file) {
            context().library().choose(file);
        }

        @Override
        public Integer call() {
            throw new ParameterException(self.commandLine(), "which command?");
        }
    }

    /** The shell without a command; it never gets an empty line. */
    @Command(name = "mendline>", description = "Commands of the shell; exit, quit or the end of input leaves it.")
    private static final class Shell extends ConsoleCommand {

        Shell(ConsoleContext context) {
            super(context);
        }

        @Override
        public Integer call() {
            throw usage("which command?");
        }
    }

    /** From the jar's manifest, so that it stands in one place only. */
    private static final class Version implements IVersionProvider {
        @Override
        public String[] getVersion() {
            String version = Commands.class.getPackage().getImplementationVersion();
            return new String[] {"mendline " + (version == null ? "(not from its jar)" : version)};
        }
    }
}
