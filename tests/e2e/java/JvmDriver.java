import com.norvane.vdi.agent.standalone.utility.MendLineNative;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;

/**
 * One request per line of standard input, one answer per line of standard output, through a real
 * JVM. Line feed, carriage return and backslash are written as backslash escapes on both sides.
 *
 * <p>Lines that begin with "!": {@code !sleep MILLISECONDS}, {@code !null} (a null request),
 * {@code !together N REQUEST} (N threads make the same request at once; prints how many distinct
 * answers there were, and the first), {@code !halt STATUS}, {@code !exit STATUS}. The end of input
 * returns from main.
 */
final class JvmDriver {

    private JvmDriver() {
    }

    public static void main(String[] arguments) throws Exception {
        MendLineNative.load(Path.of(arguments[0]));
        PrintStream out = new PrintStream(System.out, true, StandardCharsets.UTF_8);
        BufferedReader in =
                new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
        for (String line = in.readLine(); line != null; line = in.readLine()) {
            if (line.startsWith("!sleep ")) {
                Thread.sleep(Long.parseLong(line.substring(7)));
            } else if (line.equals("!null")) {
                out.println(escape(MendLineNative.forwardAndHandleRequest(null)));
            } else if (line.startsWith("!halt ")) {
                Runtime.getRuntime().halt(Integer.parseInt(line.substring(6)));
            } else if (line.startsWith("!exit ")) {
                System.exit(Integer.parseInt(line.substring(6)));
            } else if (line.startsWith("!together ")) {
                String[] words = line.split(" ", 3);
                together(Integer.parseInt(words[1]), unescape(words[2]), out);
            } else {
                out.println(escape(MendLineNative.forwardAndHandleRequest(unescape(line))));
            }
        }
    }

    private static void together(int threads, String request, PrintStream out)
            throws InterruptedException {
        String[] answers = new String[threads];
        Thread[] running = new Thread[threads];
        for (int i = 0; i < threads; i++) {
            int index = i;
            running[i] = new Thread(
                    () -> answers[index] = MendLineNative.forwardAndHandleRequest(request));
            running[i].start();
        }
        for (Thread thread : running) {
            thread.join();
        }
        out.println(java.util.Set.of(java.util.Arrays.stream(answers).distinct().toArray()).size()
                + " " + escape(answers[0]));
    }

    private static String escape(String text) {
        return text.replace("\\", "\\\\").replace("\n", "\\n").replace("\r", "\\r");
    }

    private static String unescape(String text) throws IOException {
        StringBuilder result = new StringBuilder();
        for (int i = 0; i < text.length(); i++) {
            char character = text.charAt(i);
            if (character == '\\') {
                i++;
                character = switch (text.charAt(i)) {
                    case 'n' -> '\n';
                    case 'r' -> '\r';
                    case '\\' -> '\\';
                    default -> throw new IOException("unknown escape in " + text);
                };
            }
            result.append(character);
        }
        return result.toString();
    }
}
