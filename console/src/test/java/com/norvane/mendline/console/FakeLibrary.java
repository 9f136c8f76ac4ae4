package com.norvane.mendline.console;

import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

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
    boolean gpuFails;
    /** As it is after a stop and another start. */
    boolean noCpuFigure;
    /** When the worker of display 101 notices a new table; negative for never. */
    long workerTakes = 300;
    /** How fast its counters grow, in bytes per millisecond. */
    long growth = 2048;
    /** What EndProcess is answered with; null for what becomes of the process. */
    String endError;
    boolean ignoresSigterm;
    long createTime = 1000;
    String secondName = "sec\u001bond";
    /** What EndProcess calls it; null for the same. */
    String endedName;
    String owner = "alice";

    private long now = 5_000;
    private boolean attached;
    private long started = -1;
    private long lastTimestamp;
    private final List<Long> records = new ArrayList<>();
    private int recordsOfStart;
    private boolean ended;

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
            recordsOfStart = 0;
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
        if (request.contains("ProtocolInfo")) {
            if (!attached || request.contains("<display>160<")) {
                throw new AssertionError("the library has crashed");
            }
            return HEAD + session(request);
        }
        if (request.contains(">ProcessMetrics<")) {
            tick();
            return HEAD + "<processMetrics><timestamp>" + lastTimestamp + "</timestamp>"
                    + (lastTimestamp == 0 ? "" : process(1, "first")
                            + (ended ? "" : process(2, secondName))) + "</processMetrics>";
        }
        if (request.contains(">EndProcess<")) {
            if (endError != null) {
                return HEAD + "<ERROR>" + endError + "</ERROR>";
            }
            ended = !ignoresSigterm;
            return HEAD + "<terminatedProcessName>" + (endedName == null ? secondName : endedName)
                    + "</terminatedProcessName>";
        }
        if (request.contains(">HistoricalMetrics<")) {
            tick();
            return HEAD + history(request);
        }
        if (request.contains(">LbMetrics<")) {
            tick();
            String cpu = noCpuFigure ? "-nan" : records.isEmpty() ? "0.000000" : "12.500000";
            return HEAD + "<LB><cpuUsage>" + cpu + "</cpuUsage><memUsage>43.210000</memUsage>"
                    + "<diskRead>0.000000</diskRead><diskWrite>1.250000</diskWrite>"
                    + "<diskQueue>inf</diskQueue></LB>";
        }
        if (request.contains(">StartvGPUMemoryCollector<")) {
            return HEAD + (gpuFails ? "<ERROR>Failed to start vGPU memory collector</ERROR>"
                    : "<INFO>Finish to start vGPU memory collector</INFO>");
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
        // Records come behind the process figures, late enough here for a client to be too early.
        while (ticks && started >= 0 && now >= started + 200 + recordsOfStart * 30_000L) {
            records.add(86_400 + started / 1000 + recordsOfStart++ * 30L);
            if (records.size() > 30) {
                records.remove(0);
            }
        }
    }

    /** Knows the displays 100 to 159 and has a worker on 101. */
    private String session(String request) {
        Matcher number = Pattern.compile("<display>1[0-5][0-9]</").matcher(request);
        if (!number.find()) {
            return "<protocol/>";
        }
        long written = now - started - workerTakes;
        boolean zero = workerTakes < 0 || written < 0 || !request.contains("<display>101<");
        long bytes = zero ? 0 : 4096 + written * growth;
        return "<protocol>" + flare(bytes, zero ? "0" : "29", zero ? "0" : null) + "</protocol>";
    }

    /** @param bytes of every byte counter, unsigned; the others follow from the frame rate
     *  @param loss null for none */
    static String flare(long bytes, String frames, String loss) {
        String counted = Long.toUnsignedString(bytes);
        StringBuilder flare = new StringBuilder("<flare>");
        for (String name : List.of("audio_recv_bytes", "audio_transmit_bytes", "cdr_recv_bytes",
                "cdr_transmit_bytes")) {
            flare.append('<').append(name).append('>').append(counted).append("</").append(name)
                    .append('>');
        }
        flare.append("<image_frames_per_second>").append(frames)
                .append("</image_frames_per_second><image_recv_bytes>").append(counted)
                .append("</image_recv_bytes><image_transmit_bytes>").append(counted)
                .append("</image_transmit_bytes><session_rtt>").append(frames)
                .append("</session_rtt><session_bandwidth_uplink>").append(frames)
                .append("</session_bandwidth_uplink>");
        if (loss != null) {
            flare.append("<session_packet_loss_uplink>").append(loss)
                    .append("</session_packet_loss_uplink>");
        }
        return flare.append("</flare>").toString();
    }

    /** Knows the users alice, who has processes, and bob, and a session on display 101. */
    private String history(String request) {
        if (request.contains("<userName></")) {
            return "<ERROR>Parameter userName missed</ERROR>";
        }
        if (request.contains("<display></")) {
            return "<ERROR>Parameter display missed</ERROR>";
        }
        boolean alice = request.contains("<userName>alice</");
        if (!alice && !request.contains("<userName>bob</")) {
            return "<ERROR>Failed to get historical metrics</ERROR>";
        }
        if (records.isEmpty()) {
            return "";
        }
        StringBuilder metrics = new StringBuilder();
        for (long timestamp : records) {
            metrics.append("<metric><timestamp>").append(timestamp).append("</timestamp><overall_cpu>")
                    .append(noCpuFigure ? "9223372036854775808" : "12")
                    .append("</overall_cpu><overall_mem>43</overall_mem>"
                            + "<disk_iops_reads>3</disk_iops_reads>"
                            + "<disk_iops_writes>17</disk_iops_writes>"
                            + "<disk_latency>2</disk_latency>")
                    .append(request.contains("<display>101</")
                            ? "<flare_latency>18</flare_latency>" : "")
                    .append(alice ? "<cpu>4</cpu><mem>6</mem>" : "").append("</metric>");
        }
        return "<historicalMetrics>" + metrics + "</historicalMetrics>";
    }

    private String process(int id, String name) {
        boolean first = now < started + 30_100;
        return "<process><id>" + id + "</id><create_time>" + Long.toUnsignedString(createTime)
                + "</create_time><name>" + name
                + "</name><cpu>" + (first ? 0 : id * 10) + "</cpu><mem>" + 5000 / id + "</mem><disk>"
                + (first ? 0 : 77) + "</disk><user_name>" + owner + "</user_name></process>";
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
