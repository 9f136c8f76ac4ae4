package com.norvane.mendline.console;

import java.io.IOException;
import java.lang.ProcessBuilder.Redirect;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * What the three standard streams are connected to, and how large the terminal is.
 *
 * @param input whether standard input is a terminal
 * @param output whether standard output is one
 * @param error whether standard error is one
 * @param unicode whether what is shown may go beyond ASCII
 */
record Terminal(boolean input, boolean output, boolean error, boolean unicode) {

    private static final int DEFAULT_COLUMNS = 80;
    private static final int DEFAULT_ROWS = 24;
    private static final Pattern STTY = Pattern.compile("(\\d{1,4}) (\\d{1,4})\\s*");

    /** @param rows lines of the terminal
     *  @param columns its width */
    record Size(int rows, int columns) {
    }

    /**
     * Looks the streams up by file descriptor. {@link System#console()} will not do: it tells nothing
     * about a single stream, and what it tells has changed from one Java release to the next.
     */
    static Terminal detect(int output, int error, boolean unicode) {
        boolean terminal = isTerminal(output);
        return new Terminal(isTerminal(0), terminal, isTerminal(error),
                unicode && !(terminal && lacksBlocks(System.getenv("TERM"))));
    }

    /** The kernel's own console takes UTF-8, but its usual fonts lack most block characters. */
    static boolean lacksBlocks(String term) {
        return "linux".equals(term);
    }

    private static boolean isTerminal(int descriptor) {
        try {
            String target =
                    Files.readSymbolicLink(Path.of("/proc/self/fd/" + descriptor)).toString();
            return target.startsWith("/dev/pts/") || target.startsWith("/dev/tty")
                    || target.startsWith("/dev/console");
        } catch (IOException | UnsupportedOperationException e) {
            // Closed, or no /proc: then better too careful about control characters than not enough.
            return System.console() != null;
        }
    }

    /** Asked anew each time, because a terminal can be resized while figures are watched. */
    static Size size() {
        return size(System.getenv(), stty());
    }

    /** The environment wins, as with other programs: it is how a user overrides the width. */
    static Size size(Map<String, String> environment, String stty) {
        int rows = DEFAULT_ROWS;
        int columns = DEFAULT_COLUMNS;
        Matcher matcher = STTY.matcher(stty);
        if (matcher.matches()) {
            // Serial lines and some pseudo-terminals say 0, which means that they do not know.
            rows = positive(matcher.group(1), rows);
            columns = positive(matcher.group(2), columns);
        }
        return new Size(positive(environment.get("LINES"), rows),
                positive(environment.get("COLUMNS"), columns));
    }

    private static int positive(String text, int otherwise) {
        if (text == null || !text.matches("[0-9]{1,4}") || Integer.parseInt(text) == 0) {
            return otherwise;
        }
        return Integer.parseInt(text);
    }

    private static String stty() {
        Path device = Path.of("/dev/tty");
        try {
            Process process = new ProcessBuilder("stty", "size")
                    .redirectInput(Redirect.from(device.toFile()))
                    .redirectError(Redirect.DISCARD).start();
            if (!process.waitFor(1, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                return "";
            }
            return new String(process.getInputStream().readAllBytes(), StandardCharsets.US_ASCII);
        } catch (IOException e) {
            // No controlling terminal, as in a service or a pipeline without one.
            return "";
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            return "";
        }
    }
}
