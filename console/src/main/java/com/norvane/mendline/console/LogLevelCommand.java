package com.norvane.mendline.console;

import picocli.CommandLine.Command;
import picocli.CommandLine.Option;
import picocli.CommandLine.Parameters;

/** Shows or sets how much the library logs. */
@Command(name = "loglevel",
        description = {
            "Show the library's log level, or set it.",
            "",
            "The level lives in this process: set on its own it is gone when the command ends, so"
                + " set it in the shell.",
        })
final class LogLevelCommand extends ConsoleCommand {

    @Parameters(paramLabel = "WORD", arity = "0..1",
            description = "VERBOSE, TRACE, DEBUG or INFO, in upper case.")
    private String word;

    @Option(names = "--json",
            description = "Show the level as one line of JSON; not for setting it.")
    private boolean json;

    LogLevelCommand(ConsoleContext context) {
        super(context);
    }

    @Override
    public Integer call() {
        Connection connection = context().connection();
        if (word == null && json) {
            String level = connection.ask(Request.of("GetLogLevel")).expect("LOGLEVEL")
                    .getTextContent();
            context().out().println("{\"LOGLEVEL\":" + Json.string(level) + "}");
            return ExitCodes.OK;
        }
        if (word == null) {
            return print(connection.ask(Request.of("GetLogLevel")), "LOGLEVEL");
        }
        if (json) {
            throw usage("--json is for showing the level");
        }
        Request request;
        try {
            // Which words are valid is the library's business, and so is the complaint.
            request = Request.of("SetLogLevel").with("loglevel", word);
        } catch (IllegalArgumentException e) {
            throw usage(e.getMessage());
        }
        int code = print(connection.ask(request), "INFO");
        if (!context().inShell()) {
            context().hint("the level lives in this process, which now ends; use `mendline shell`");
        }
        return code;
    }
}
