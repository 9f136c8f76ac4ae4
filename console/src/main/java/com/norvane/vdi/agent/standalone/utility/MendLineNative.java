package com.norvane.vdi.agent.standalone.utility;

import java.nio.file.Path;

/**
 * The one door into {@code libmendline.so}. The class and method names are part of the exported JNI
 * symbol, so neither can change without the library.
 *
 * <p>There is no static initialiser: callers choose which file to load, and everything that only
 * needs this class on its class path (tests, {@code --help}) works where the library is not there.
 */
public final class MendLineNative {

    private MendLineNative() {
    }

    /**
     * Loads the library from one file.
     *
     * @param file made absolute here, because the JVM accepts nothing else
     * @throws UnsatisfiedLinkError if the file is missing or not a usable library
     */
    public static void load(Path file) {
        System.load(file.toAbsolutePath().toString());
    }

    /**
     * Loads the library from the directories of {@code java.library.path}.
     *
     * @throws UnsatisfiedLinkError if none of them has a usable one
     */
    public static void load() {
        System.loadLibrary("mendline");
    }

    /**
     * Runs one request to its end on the calling thread.
     *
     * <p>A request that touches the session table while none is attached ends the whole JVM; the
     * library does not check. Neither does it accept {@code null}.
     *
     * @param request a {@code MendlineOperation} document
     * @return an XML declaration followed by any number of root elements, or a bare {@code ERROR}
     *     element when the request was not well-formed
     * @throws UnsatisfiedLinkError if the library has not been loaded
     */
    public static native String forwardAndHandleRequest(String request);
}
