package com.norvane.mendline.console;

import java.util.ArrayList;
import java.util.List;

/**
 * Behaves like the library as far as the client can tell, on a clock that the test moves, and fails
 * the test where the library would crash.
 */
final class FakeLibrary implements MendlineLibrary, Pacer {

    static final String HEAD = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

    final List<String> requests = new ArrayList<>();
    /** Given instead of an answer of its own, if not null. */
    String canned;
    boolean startFails;
    /** How long a start takes; long enough, and the first tick is over when it returns. */
    long startTakes;
    boolean ticks = true;
    boolean loadable = true;
    int sleptForever;
    Runnable onSleep = () -> { };

    private long now = 5_000;
    private boolean attached;
    private long started = -1;
    private long lastTimestamp;

    @Override
    public String forwardAndHandleRequest(String request) {
        if (!loadable) {
            throw new ConsoleException(ExitCodes.UNUSABLE, "cannot load the library");
        }
        requests.add(request);
        if (canned != null) {
            return canned;
        }
        if (request.contains(">StartCollector<")) {
            attached = !startFails;
            if (startFails) {
                return HEAD + "<ERROR>Failed to start collector</ERROR>";
            }
            started = now;
            now += startTakes;
            return HEAD + "<INFO>Succeed to start collector</INFO>";
        }
        if (request.contains(">StopCollector<")) {
            tick();
            attached = false;
            started = -1;
            return HEAD + "<INFO>Finish to stop collector</INFO>";
        }
        if (request.contains("ClearShm")) {
            if (!attached) {
                throw new AssertionError("the library has crashed");
            }
            return HEAD + "<INFO>Finish to clear shared memory</INFO>";
        }
        if (request.contains(">ProcessMetrics<")) {
            tick();
            return HEAD + "<processMetrics><timestamp>" + lastTimestamp + "</timestamp>"
                    + (lastTimestamp == 0 ? "" : process(1, "first") + process(2, "sec\u001bond"))
                    + "</processMetrics>";
        }
        if (request.contains(">GetLogLevel<")) {
            return HEAD + "<LOGLEVEL>INFO</LOGLEVEL>";
        }
        if (request.contains("<loglevel>DEBUG<")) {
            return HEAD + "<INFO>Succeed to set loglevel</INFO>";
        }
        if (request.contains(">SetLogLevel<")) {
            return HEAD + "<ERROR>Invalid loglevel X</ERROR>";
        }
        return request.contains("MendlineOperation")
                ? HEAD + "<ERROR>Invalid mendline opcode</ERROR>"
                : "<ERROR>Failed to do mendline operation</ERROR>";
    }

    private void tick() {
        // The first tick takes a moment, as the real one does.
        if (ticks && started >= 0 && now >= started + 100) {
            lastTimestamp = 86_400 + started / 1000 + (now - started - 100) / 30_000 * 30;
        }
    }

    private String process(int id, String name) {
        boolean first = now < started + 30_100;
        return "<process><id>" + id + "</id><create_time>1000</create_time><name>" + name
                + "</name><cpu>" + (first ? 0 : id * 10) + "</cpu><mem>" + 5000 / id + "</mem><disk>"
                + (first ? 0 : 77) + "</disk><user_name>alice</user_name></process>";
    }

    long count(String opcode) {
        return requests.stream().filter(r -> r.contains(">" + opcode + "<")).count();
    }

    @Override
    public long now() {
        return now;
    }

    @Override
    public void sleep(long milliseconds) {
        now += milliseconds;
        onSleep.run();
    }

    @Override
    public long epochSeconds() {
        return 2000;
    }

    @Override
    public void sleepForever() {
        sleptForever++;
    }
}
