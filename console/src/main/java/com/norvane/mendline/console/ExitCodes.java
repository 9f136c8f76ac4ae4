package com.norvane.mendline.console;

/** Exit codes, so that scripts can tell the library's refusal from ours and both from an accident. */
final class ExitCodes {

    static final int OK = 0;
    /** The library answered with an ERROR element, or its answer lacks what was asked for. */
    static final int LIBRARY_ERROR = 1;
    static final int USAGE = 2;
    /** No library, an answer nobody can read, or no figures within a sensible time. */
    static final int UNUSABLE = 3;
    /** This client did not send the request: the library would not survive or serve it, or the user
     *  did not want it after all. */
    static final int REFUSED = 4;
    /** A defect of this client. */
    static final int INTERNAL = 70;

    private ExitCodes() {
    }
}
