package com.norvane.mendline.console;

import java.util.Set;

/**
 * What a request may do, as far as can be told before it is sent. "May" errs on the side of yes,
 * "surely" on the side of no.
 *
 * @param readable whether our own parser takes it; if not, {@code displays} tells nothing
 * @param mayTouchTable whether the operation may reach into the session table
 * @param mayStart whether it may start a collector
 * @param surelyStarts whether nobody could read it as anything but a start
 * @param mayStop whether it may stop the collector
 * @param surelyStops whether nobody could read it as anything but a stop
 * @param displays every display number that the operation may be told
 */
record RequestReading(boolean readable, boolean mayTouchTable, boolean mayStart,
        boolean surelyStarts, boolean mayStop, boolean surelyStops, Set<Integer> displays) {
}
