package com.norvane.mendline.console;

import java.io.BufferedOutputStream;
import java.io.FileDescriptor;
import java.io.FileInputStream;
import java.io.FileOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;

/** The program {@code mendline}. */
public final class Main {

    /** Set by the launcher when it has exchanged standard output and standard error; see there. */
    private static final String SWAPPED = "mendline.streams.swapped";
    private static final String LIBRARY = "mendline.library";
    /** Set by the launcher where the user's locale has no UTF-8, which it hides from Java. */
    private static final String ASCII = "mendline.ascii";

    private Main() {
    }

    /**
     * Runs one command and ends the JVM with its exit code.
     *
     * @param arguments the command line
     */
    public static void main(String[] arguments) {
        boolean swapped = Boolean.getBoolean(SWAPPED);
        PrintStream out = stream(swapped ? FileDescriptor.err : FileDescriptor.out);
        PrintStream err = stream(swapped ? FileDescriptor.out : FileDescriptor.err);
        LibraryLocation location =
                new LibraryLocation(System.getenv("MENDLINE_LIBRARY"), System.getProperty(LIBRARY));
        Connection connection = new Connection(new NativeLibrary(location),
                new SessionTableGuard(
                        previous -> DisplayRange.load(DisplayRange.CONFIGURATION, previous)));
        boolean unicode = !Boolean.getBoolean(ASCII);
        Terminal terminal =
                swapped ? Terminal.detect(2, 1, unicode) : Terminal.detect(1, 2, unicode);
        ConsoleContext context = new ConsoleContext(new FileInputStream(FileDescriptor.in), out, err,
                terminal, connection, location, new Pacer.Real());

        // A signal ends the JVM past any finally block. A collector that is not stopped leaves its
        // shared memory behind on the host.
        Runtime.getRuntime().addShutdownHook(new Thread(() -> {
            if (connection.close()) {
                err.println("mendline: collector stopped");
                err.flush();
            }
        }));
        System.exit(run(context, arguments));
    }

    static int run(ConsoleContext context, String... arguments) {
        try {
            return Commands.program(context).execute(arguments);
        } finally {
            context.connection().close();
            context.out().flush();
            context.err().flush();
        }
    }

    private static PrintStream stream(FileDescriptor descriptor) {
        return new PrintStream(new BufferedOutputStream(new FileOutputStream(descriptor)), true,
                StandardCharsets.UTF_8);
    }
}
