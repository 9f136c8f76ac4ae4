package com.norvane.mendline.console;

import java.math.BigInteger;
import java.util.ArrayList;
import java.util.EnumMap;
import java.util.List;
import java.util.Map;

/** Session figures for people and for programs. */
final class SessionText {

    /** As wide as any size gets, so that a table that is shown anew does not jump about. */
    private static final int SIZE = 10;
    private static final String GAP = "  ";

    private record Channel(String label, SessionCounter received, SessionCounter sent) {
    }

    private static final List<Channel> CHANNELS = List.of(
            new Channel("image", SessionCounter.IMAGE_RECEIVED, SessionCounter.IMAGE_SENT),
            new Channel("audio", SessionCounter.AUDIO_RECEIVED, SessionCounter.AUDIO_SENT),
            new Channel("cdr", SessionCounter.CDR_RECEIVED, SessionCounter.CDR_SENT));

    private record Gauge(String title, SessionCounter counter) {
    }

    private static final List<Gauge> GAUGES = List.of(
            new Gauge("FRAMES/s", SessionCounter.FRAME_RATE),
            new Gauge("ROUND TRIP", SessionCounter.ROUND_TRIP),
            new Gauge("UPLINK BANDWIDTH", SessionCounter.BANDWIDTH),
            new Gauge("UPLINK LOSS", SessionCounter.PACKET_LOSS));

    private SessionText() {
    }

    /**
     * How fast the byte counters grew; empty for the first reading of a series, which has nothing to
     * compare with.
     */
    static Map<SessionCounter, BigInteger> rates(SessionFigures figures, SessionFigures before,
            long milliseconds) {
        Map<SessionCounter, BigInteger> rates = new EnumMap<>(SessionCounter.class);
        for (SessionCounter counter : SessionCounter.values()) {
            BigInteger rate = before == null || !counter.countsBytes() ? null
                    : figures.rate(counter, before, milliseconds);
            if (rate != null) {
                rates.put(counter, rate);
            }
        }
        return rates;
    }

    /** @param rates per second; null for a table without */
    static List<String> lines(SessionFigures figures, Map<SessionCounter, BigInteger> rates) {
        List<String> lines = new ArrayList<>();
        lines.add("CHANNEL" + size("RECEIVED") + (rates == null ? "" : size("per s")) + size("SENT")
                + (rates == null ? "" : size("per s")));
        for (Channel channel : CHANNELS) {
            lines.add(DisplayWidth.padRight(channel.label(), "CHANNEL".length())
                    + sizes(channel.received(), figures, rates)
                    + sizes(channel.sent(), figures, rates));
        }
        StringBuilder titles = new StringBuilder();
        StringBuilder values = new StringBuilder();
        for (Gauge gauge : GAUGES) {
            BigInteger value = figures.get(gauge.counter());
            String gap = titles.length() == 0 ? "" : GAP;
            titles.append(gap).append(gauge.title());
            values.append(gap).append(DisplayWidth.padLeft(
                    value == null ? "-" : HumanUnits.count(value), gauge.title().length()));
        }
        lines.add(titles.toString());
        lines.add(values.toString());
        return lines;
    }

    private static String sizes(SessionCounter counter, SessionFigures figures,
            Map<SessionCounter, BigInteger> rates) {
        return size(bytes(figures.get(counter)))
                + (rates == null ? "" : size(bytes(rates.get(counter))));
    }

    private static String bytes(BigInteger number) {
        return number == null ? "-" : HumanUnits.bytes(number.longValue());
    }

    private static String size(String text) {
        return GAP + DisplayWidth.padLeft(text, SIZE);
    }

    /** One line; keys are the library's element names, and null stands for no figure.
     *
     *  @param rates per second; null for a line without */
    static String json(String display, SessionFigures figures,
            Map<SessionCounter, BigInteger> rates) {
        StringBuilder json = new StringBuilder("{\"display\":").append(Json.string(display));
        for (SessionCounter counter : SessionCounter.values()) {
            json.append(",\"").append(counter.element()).append("\":")
                    .append(figures.get(counter));
        }
        if (rates != null) {
            String separator = ",\"per_second\":{";
            for (SessionCounter counter : SessionCounter.values()) {
                if (counter.countsBytes()) {
                    json.append(separator).append('"').append(counter.element()).append("\":")
                            .append(rates.get(counter));
                    separator = ",";
                }
            }
            json.append('}');
        }
        return json.append('}').toString();
    }
}
