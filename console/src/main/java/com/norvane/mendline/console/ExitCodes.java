package com.norvane.mendline.console;

/** Exit codes, so that scripts can tell the library's refusal from ours and both from an accident. */
final class ExitCodes {

    static final int OK = 0;
    /** The library answered, and the answer holds an ERROR element. */
    static final int LIBRARY_ERROR = 1;
    static final int USAGE = 2;
    /** No library, an answer nobody can read, or no figures within a sensible time. */
    static final int UNUSABLE = 3;
    /** This client did not send the request, because the library would not survive or serve it. */
    static final int REFUSED = 4;
    /** A defect of this client. */
    static final int INTERNAL = 70;

    private ExitCodes() {
    }
}
