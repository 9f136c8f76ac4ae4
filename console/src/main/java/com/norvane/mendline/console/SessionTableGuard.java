package com.norvane.mendline.console;

import java.util.HashSet;
import java.util.Set;
import java.util.function.UnaryOperator;

/**
 * Keeps requests from the library that would end this process: those that reach into the session
 * table while none is attached, and those for the display right behind its last record.
 *
 * <p>The table counts as attached from the moment a start has been answered with success until
 * anything is sent that may stop or start a collector. Used under the lock of {@link Connection}.
 */
final class SessionTableGuard {

    private final UnaryOperator<DisplayRange> configured;
    private final Set<Integer> forbidden = new HashSet<>();
    private DisplayRange range = DisplayRange.DEFAULT;
    private boolean attached;

    /** @param configured gives the range that a start would now set, from the one before it */
    SessionTableGuard(UnaryOperator<DisplayRange> configured) {
        this.configured = configured;
    }

    /** @throws ConsoleException with {@link ExitCodes#REFUSED} if the request must not be sent */
    void check(RequestReading request) {
        if (!request.mayTouchTable()) {
            return;
        }
        if (!request.readable()) {
            throw refused("the request is not well-formed XML, and the library may still find an"
                    + " operation on the session table in it");
        }
        if (!attached) {
            throw refused("the operation reaches into the session table, and none is attached: the"
                    + " library would crash this process. A successful start in this same process"
                    + " has to come first, with no stop and no failed start after it"
                    + " (see the shell command)");
        }
        for (int display : request.displays()) {
            if (forbidden.contains(display)) {
                throw refused("display " + display + " lies one record beyond the session table, and"
                        + " the library would touch memory that is not its own");
            }
        }
    }

    /** To be called before a checked request is sent: even one that then fails may have detached. */
    void sending(RequestReading request) {
        if (request.mayStart() || request.mayStop()) {
            attached = false;
        }
        if (request.mayStart()) {
            // The library reads its configuration at the same moment, give or take; where the file
            // changes in between, both readings stay forbidden.
            DisplayRange before = configured.apply(range);
            forbidden.clear();
            forbidden.add(before.justBeyond());
            range = before;
        }
    }

    /** To be called with what came back. */
    void answered(RequestReading request, boolean startSucceeded) {
        if (request.mayStart()) {
            range = configured.apply(range);
            forbidden.add(range.justBeyond());
        }
        attached |= request.surelyStarts() && startSucceeded;
    }

    private static ConsoleException refused(String reason) {
        return new ConsoleException(ExitCodes.REFUSED, "refused: " + reason);
    }
}
