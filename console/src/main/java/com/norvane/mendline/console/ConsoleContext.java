package com.norvane.mendline.console;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.PrintStream;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.util.Optional;

/** What the commands of one process share: streams, the connection, and whether a shell is running. */
final class ConsoleContext {

    private final InputStream in;
    private final PrintStream out;
    private final PrintStream err;
    private final Terminal terminal;
    private final Connection connection;
    private final LibraryLocation library;
    private final Pacer pacer;
    private BufferedReader lines;
    private boolean inShell;
    private Long baseline;

    ConsoleContext(InputStream in, PrintStream out, PrintStream err, Terminal terminal,
            Connection connection, LibraryLocation library, Pacer pacer) {
        this.in = in;
        this.out = out;
        this.err = err;
        this.terminal = terminal;
        this.connection = connection;
        this.library = library;
        this.pacer = pacer;
    }

    InputStream in() {
        return in;
    }

    PrintStream out() {
        return out;
    }

    PrintStream err() {
        return err;
    }

    Terminal terminal() {
        return terminal;
    }

    Connection connection() {
        return connection;
    }

    LibraryLocation library() {
        return library;
    }

    Pacer pacer() {
        return pacer;
    }

    TickWaiter ticks() {
        return new TickWaiter(connection, pacer);
    }

    Countdown countdown() {
        return new Countdown(err, terminal.error());
    }

    boolean inShell() {
        return inShell;
    }

    void enterShell() {
        inShell = true;
    }

    /** Standard input by lines; one reader for all, because it reads ahead. */
    BufferedReader lines() {
        if (lines == null) {
            lines = new BufferedReader(new InputStreamReader(in, StandardCharsets.UTF_8));
        }
        return lines;
    }

    /** Waits for the next line of input; empty at its end. */
    Optional<String> nextLine() {
        try {
            return Optional.ofNullable(lines().readLine());
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** Takes one line from a shell's user if there is one, without waiting for it. */
    boolean enterPressed() {
        try {
            return lines().ready() && lines().readLine() != null;
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /**
     * Starts the collector and remembers which tick came last before that, so that a wait can count
     * the first tick of this start even when it has come by then.
     */
    Answer startCollector() {
        long before = ProcessFigures.ask(connection).timestamp();
        Answer answer = connection.ask(Request.of("StartCollector"));
        answer.expect("INFO");
        baseline = before;
        return answer;
    }

    /** What {@link #startCollector} remembered, once; null if it was not called since. */
    Long takeBaseline() {
        Long taken = baseline;
        baseline = null;
        return taken;
    }

    /** Messages can quote names, requests and answers. */
    void complain(String message) {
        err.println("mendline: " + TerminalText.line(message));
    }

    void hint(String message) {
        err.println("hint: " + message);
    }
}
