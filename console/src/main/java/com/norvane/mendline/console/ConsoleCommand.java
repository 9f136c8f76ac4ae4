package com.norvane.mendline.console;

import java.util.concurrent.Callable;
import org.w3c.dom.Element;
import picocli.CommandLine.Command;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.Spec;

/** What all commands have in common; one subclass for each, listed in {@link Commands}. */
@Command(
        synopsisHeading = "Usage: ",
        descriptionHeading = "%n",
        parameterListHeading = "%nParameters:%n",
        optionListHeading = "%nOptions:%n",
        commandListHeading = "%nCommands:%n",
        footerHeading = "%n",
        exitCodeListHeading = "%nExit codes:%n",
        exitCodeList = {
            " 0:done",
            " 1:the library answered with an ERROR, or has no such display or process",
            " 2:the command line is wrong",
            " 3:the library cannot be loaded, its answer cannot be understood, or no figures came",
            " 4:refused by this client: the library would crash, or has nothing to show, or the"
                + " answer to a question was no",
            "70:a defect of this client",
        })
abstract class ConsoleCommand implements Callable<Integer> {

    @Spec
    private CommandSpec spec;

    @Option(names = {"-h", "--help"}, usageHelp = true, description = "Show this help.")
    private boolean help;

    private final ConsoleContext context;

    ConsoleCommand(ConsoleContext context) {
        this.context = context;
    }

    final ConsoleContext context() {
        return context;
    }

    final ParameterException usage(String message) {
        return new ParameterException(spec.commandLine(), message);
    }

    /** Prints the text of the one element that the operation is answered with. */
    final int print(Answer answer, String element) {
        Element found = answer.expect(element);
        context.out().println(TerminalText.line(found.getTextContent()));
        return ExitCodes.OK;
    }
}
