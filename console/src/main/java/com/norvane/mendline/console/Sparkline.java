package com.norvane.mendline.console;

import java.math.BigInteger;
import java.util.List;
import java.util.Objects;
import java.util.Optional;
import java.util.stream.Stream;

/**
 * Draws figures as one line of marks, each the higher the larger its figure, from the smallest to the
 * largest of them. A blank stands for no figure.
 */
final class Sparkline {

    /** Stands for a figure that is none, see {@link #impossible}. */
    static final char BEYOND = '!';

    private static final String BLOCKS = "▁▂▃▄▅▆▇█";
    private static final String ASCII = "_.-:=+*#";
    private static final char NONE = ' ';

    /** Far above any rate, percentage or latency of a real host. */
    private static final BigInteger IMPOSSIBLE = BigInteger.TEN.pow(12);

    private final List<BigInteger> figures;
    private final String levels;

    /** @param figures oldest first; null for none */
    Sparkline(List<BigInteger> figures, boolean unicode) {
        this.figures = figures;
        this.levels = unicode ? BLOCKS : ASCII;
    }

    /**
     * Whether a figure comes from a counter that went backwards, which the library subtracts without
     * a sign. Such a one is not drawn to scale, or it would flatten all others for a quarter of an
     * hour.
     */
    static boolean impossible(BigInteger figure) {
        return figure.abs().compareTo(IMPOSSIBLE) >= 0;
    }

    boolean hasImpossible() {
        return figures.stream().filter(Objects::nonNull).anyMatch(Sparkline::impossible);
    }

    Optional<BigInteger> smallest() {
        return scaled().min(BigInteger::compareTo);
    }

    Optional<BigInteger> largest() {
        return scaled().max(BigInteger::compareTo);
    }

    private Stream<BigInteger> scaled() {
        return figures.stream().filter(f -> f != null && !impossible(f));
    }

    /**
     * @param group how many figures share a mark, which then shows the largest of them; counted from
     *     the newest, so that the oldest mark may have fewer
     */
    String draw(int group) {
        StringBuilder line = new StringBuilder();
        int first = figures.size() % group;
        if (first > 0) {
            line.append(mark(figures.subList(0, first)));
        }
        for (int i = first; i < figures.size(); i += group) {
            line.append(mark(figures.subList(i, i + group)));
        }
        return line.toString();
    }

    private char mark(List<BigInteger> group) {
        Optional<BigInteger> largest =
                group.stream().filter(Objects::nonNull).max(BigInteger::compareTo);
        if (group.stream().filter(Objects::nonNull).anyMatch(Sparkline::impossible)) {
            return BEYOND;
        }
        return largest.map(f -> levels.charAt(level(f))).orElse(NONE);
    }

    private int level(BigInteger figure) {
        BigInteger smallest = smallest().orElseThrow();
        BigInteger span = largest().orElseThrow().subtract(smallest);
        int top = levels.length() - 1;
        if (span.signum() == 0) {
            // Nothing went up or down, and only nothing at all looks like it.
            return figure.signum() == 0 ? 0 : top / 2;
        }
        return (int) Math.round(
                figure.subtract(smallest).doubleValue() / span.doubleValue() * top);
    }
}
