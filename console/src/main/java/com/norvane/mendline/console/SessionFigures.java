package com.norvane.mendline.console;

import java.math.BigInteger;
import java.util.EnumMap;
import java.util.Map;
import java.util.Optional;
import org.w3c.dom.Element;

/**
 * The answer to one ProtocolInfo request: the record of one display at the moment of the request.
 *
 * @param figures those that there are; what the answer lacks and what it marks as no figure is absent
 */
record SessionFigures(Map<SessionCounter, BigInteger> figures) {

    private static final BigInteger MILLISECONDS = BigInteger.valueOf(1000);
    private static final int BITS = 64;

    SessionFigures {
        figures = Map.copyOf(figures);
    }

    /** Empty if the session table has no such display. */
    static Optional<SessionFigures> ask(Connection connection, String display) {
        return of(connection.ask(Request.of("ProtocolInfo").with("display", display)));
    }

    static Optional<SessionFigures> of(Answer answer) {
        Element protocol = answer.expect("protocol");
        if (!protocol.hasChildNodes()) {
            return Optional.empty();
        }
        Element flare = Fields.child(protocol, "flare").orElseThrow(() -> Answer.unusable(
                "the library's answer has a protocol element without flare"));
        Map<SessionCounter, BigInteger> figures = new EnumMap<>(SessionCounter.class);
        for (SessionCounter counter : SessionCounter.values()) {
            String text = counter.mayBeAbsent()
                    ? Fields.find(flare, counter.element()).orElse(null)
                    : Fields.text(flare, counter.element());
            BigInteger figure = text == null ? null : counter.parse(text);
            if (figure != null) {
                figures.put(counter, figure);
            }
        }
        return Optional.of(new SessionFigures(figures));
    }

    /** Null if there is none. */
    BigInteger get(SessionCounter counter) {
        return figures.get(counter);
    }

    /** Whether this is how a record begins: everything is 0, packet loss included. */
    boolean untouched() {
        return figures.size() == SessionCounter.values().length
                && figures.values().stream().allMatch(f -> f.signum() == 0);
    }

    /**
     * How fast a byte counter grew since an earlier reading, in bytes per second; null where that
     * cannot be told, because it went back: it was cleared, or began anew at its largest number.
     */
    BigInteger rate(SessionCounter counter, SessionFigures before, long milliseconds) {
        BigInteger more = get(counter).subtract(before.get(counter));
        if (more.signum() < 0 || milliseconds <= 0) {
            return null;
        }
        BigInteger rate = more.multiply(MILLISECONDS).divide(BigInteger.valueOf(milliseconds));
        return rate.bitLength() > BITS ? null : rate;
    }
}
