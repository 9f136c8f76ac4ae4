package com.norvane.mendline.console;

/**
 * A command could not do its work, for a reason that the user can act on. The message is printed as
 * it is (after {@link TerminalText}); the exit code is one of {@link ExitCodes}.
 */
final class ConsoleException extends RuntimeException {

    private static final long serialVersionUID = 1L;

    private final int exitCode;

    ConsoleException(int exitCode, String message) {
        super(message);
        this.exitCode = exitCode;
    }

    int exitCode() {
        return exitCode;
    }
}
