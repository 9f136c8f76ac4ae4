import com.norvane.vdi.agent.standalone.utility.MendLineNative;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Locale;
import java.util.function.UnaryOperator;

/**
 * Times GetLogLevel and a bare echo in turn, round by round, and prints the medians of both and of
 * their ratio. Arguments: the library, the echo's library, and the number of rounds.
 */
final class GetLogLevelBench {

    private static final int CALLS_PER_ROUND = 2_000;
    // The compiler of the JVM is through with both loops after about half of these.
    private static final int WARM_UP_ROUNDS = 300;
    private static final String REQUEST =
            "<MendlineOperation><opcode>GetLogLevel</opcode></MendlineOperation>";
    private static final ThreadMXBean THREADS = ManagementFactory.getThreadMXBean();

    // Added up so that no call can be left out.
    private static long characters;

    private GetLogLevelBench() {
    }

    public static void main(String[] arguments) {
        MendLineNative.load(Path.of(arguments[0]));
        System.load(Path.of(arguments[1]).toAbsolutePath().toString());
        int rounds = Integer.parseInt(arguments[2]);
        // An answer of any other kind would be the quick one of a failure.
        String answer = MendLineNative.forwardAndHandleRequest(REQUEST);
        if (!answer.endsWith("<LOGLEVEL>INFO</LOGLEVEL>")
                || BareEcho.echo(REQUEST).length() != 150) {
            throw new IllegalStateException("unexpected answer: " + answer);
        }

        Times request = new Times(rounds);
        Times echo = new Times(rounds);
        for (int round = -WARM_UP_ROUNDS; round < rounds; round++) {
            // Each comes first in every other round.
            if (round % 2 == 0) {
                request.measure(round, MendLineNative::forwardAndHandleRequest);
                echo.measure(round, BareEcho::echo);
            } else {
                echo.measure(round, BareEcho::echo);
                request.measure(round, MendLineNative::forwardAndHandleRequest);
            }
        }
        System.out.println(rounds + " rounds of " + CALLS_PER_ROUND
                + " calls each, in turn; median (first to third quartile)");
        print("", "CPU time per call", "elapsed time per call");
        print("GetLogLevel", nanoseconds(request.cpu), nanoseconds(request.elapsed));
        print("bare echo", nanoseconds(echo.cpu), nanoseconds(echo.elapsed));
        print("ratio per round", ratios(request.cpu, echo.cpu),
                ratios(request.elapsed, echo.elapsed));
        if (characters == 0) {
            throw new IllegalStateException("nothing was answered");
        }
    }

    private static void print(String row, String first, String second) {
        System.out.println(String.format("%-18s%-29s%s", row, first, second));
    }

    private static String nanoseconds(double[] values) {
        return spread(values, "%.0f ns (%.0f to %.0f)");
    }

    private static String ratios(double[] ours, double[] theirs) {
        double[] quotients = new double[ours.length];
        for (int i = 0; i < quotients.length; i++) {
            quotients[i] = ours[i] / theirs[i];
        }
        return spread(quotients, "%.2f (%.2f to %.2f)");
    }

    private static String spread(double[] values, String format) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        int last = sorted.length - 1;
        return String.format(Locale.ROOT, format,
                sorted[last / 2], sorted[last / 4], sorted[last * 3 / 4]);
    }

    /** Nanoseconds per call of each round. */
    private static final class Times {

        private final double[] cpu;
        private final double[] elapsed;

        Times(int rounds) {
            cpu = new double[rounds];
            elapsed = new double[rounds];
        }

        void measure(int round, UnaryOperator<String> method) {
            long begin = System.nanoTime();
            long cpuBegin = THREADS.getCurrentThreadCpuTime();
            for (int call = 0; call < CALLS_PER_ROUND; call++) {
                characters += method.apply(REQUEST).length();
            }
            long cpuEnd = THREADS.getCurrentThreadCpuTime();
            long end = System.nanoTime();
            if (round >= 0) {
                cpu[round] = (double) (cpuEnd - cpuBegin) / CALLS_PER_ROUND;
                elapsed[round] = (double) (end - begin) / CALLS_PER_ROUND;
            }
        }
    }
}
