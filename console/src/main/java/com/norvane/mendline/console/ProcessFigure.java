package com.norvane.mendline.console;

import java.util.Optional;

/**
 * One process at one tick.
 *
 * @param id process id
 * @param createTime seconds since the epoch, unsigned; 0 when unknown
 * @param name as the host gives it, untrusted
 * @param cpu whole percent of all CPUs of the host, unsigned; {@link #NO_FIGURE} when there is none
 * @param mem bytes, unsigned
 * @param disk bytes read and written during the last interval, unsigned
 * @param userName untrusted; empty when unknown
 */
record ProcessFigure(long id, long createTime, String name, long cpu, long mem, long disk,
        String userName) {

    /**
     * What the library's conversion makes of a quotient of nothing by nothing: after a collector has
     * been stopped and started again, every process is answered with it.
     */
    static final long NO_FIGURE = Long.parseUnsignedLong("9223372036854775808");

    boolean hasCpu() {
        return cpu != NO_FIGURE;
    }

    /** @param now seconds since the epoch */
    Optional<String> age(long now) {
        if (createTime <= 0) {
            return Optional.empty();
        }
        // A clock that was set back must not give a negative age.
        return Optional.of(HumanUnits.age(Math.max(0, now - createTime)));
    }
}
