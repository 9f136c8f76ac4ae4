import com.norvane.vdi.agent.standalone.utility.MendLineNative;
import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.ReadWriteLock;
import java.util.concurrent.locks.ReentrantReadWriteLock;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * An agent under load: so many threads make requests of every kind, without a pause longer than some
 * milliseconds, until the end of input. Each line of input is a request too, made by the main
 * thread, with one line of output; {@code !count} gives the number of answers so far.
 *
 * <p>A wrong answer ends the process with status 3.
 */
final class SoakDriver {

    private static final Pattern VICTIM = Pattern.compile(
            "<id>(\\d+)</id><create_time>(\\d+)</create_time><name>victim</name>");
    private static final String DECLARATION = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

    // Requests that reach into the session table must not meet a stop.
    private static final ReadWriteLock table = new ReentrantReadWriteLock();
    private static boolean attached;
    private static final AtomicLong answers = new AtomicLong();

    private SoakDriver() {
    }

    public static void main(String[] arguments) throws Exception {
        MendLineNative.load(Path.of(arguments[0]));
        for (int i = 0; i < Integer.parseInt(arguments[1]); i++) {
            int seed = i;
            Thread thread = new Thread(() -> askForEver(new Random(seed)));
            thread.setDaemon(true);
            thread.start();
        }
        BufferedReader in =
                new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
        for (String line = in.readLine(); line != null; line = in.readLine()) {
            System.out.println(line.equals("!count") ? Long.toString(answers.get()) : control(line));
        }
        Runtime.getRuntime().halt(0);
    }

    private static String control(String opcode) {
        table.writeLock().lock();
        try {
            String answer = ask(opcode, "");
            attached = opcode.equals("StartCollector");
            return answer.substring(DECLARATION.length());
        } finally {
            table.writeLock().unlock();
        }
    }

    private static void askForEver(Random random) {
        try {
            while (true) {
                askOnce(random);
                Thread.sleep(1 + random.nextInt(12));
            }
        } catch (InterruptedException | RuntimeException problem) {
            problem.printStackTrace();
            Runtime.getRuntime().halt(3);
        }
    }

    private static void askOnce(Random random) {
        String display = "<display>" + (101 + random.nextInt(4)) + "</display>";
        switch (random.nextInt(8)) {
            case 0 -> expect(ask("ProcessMetrics", ""), "</processMetrics>");
            case 1 -> expect(ask("HistoricalMetrics", "<userName>alice</userName>" + display), "");
            case 2 -> expect(ask("LbMetrics", ""), "</LB>");
            case 3 -> expect(ask("GetLogLevel", ""), "</LOGLEVEL>");
            case 4 -> expect(ask("SetLogLevel", "<loglevel>TRACE</loglevel>"), "</INFO>");
            case 5 -> withTable(() -> expect(ask("ProtocolInfo", display), "</protocol>"));
            case 6 -> withTable(() -> expect(ask("ClearShm", display), "</INFO>"));
            default -> endOne(random);
        }
    }

    private static void withTable(Runnable request) {
        table.readLock().lock();
        try {
            if (attached) {
                request.run();
            }
        } finally {
            table.readLock().unlock();
        }
    }

    /** Ends a process that is there to be ended, now and then. */
    private static void endOne(Random random) {
        Matcher victim = VICTIM.matcher(ask("ProcessMetrics", ""));
        if (random.nextInt(16) == 0 && victim.find()) {
            String answer = ask("EndProcess", "<processId>" + victim.group(1)
                    + "</processId><createTime>" + victim.group(2) + "</createTime>");
            if (!answer.endsWith("<ERROR>Failed to terminate process</ERROR>")) {
                expect(answer, "<terminatedProcessName>victim</terminatedProcessName>");
            }
        }
    }

    private static String ask(String opcode, String parameters) {
        String answer = MendLineNative.forwardAndHandleRequest("<MendlineOperation><opcode>" + opcode
                + "</opcode>" + parameters + "</MendlineOperation>");
        answers.incrementAndGet();
        expect(answer, "");
        return answer;
    }

    private static void expect(String answer, String end) {
        if (!answer.startsWith(DECLARATION) || !answer.endsWith(end)) {
            throw new IllegalStateException("not an answer that ends in '" + end + "': " + answer);
        }
    }
}
