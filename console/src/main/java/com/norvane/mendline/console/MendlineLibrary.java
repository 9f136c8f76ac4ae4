package com.norvane.mendline.console;

/**
 * What the client needs of the native library. It is an interface so that everything above it can be
 * tested in a JVM that never loads native code.
 */
@FunctionalInterface
interface MendlineLibrary {

    /**
     * Runs one request. Loads the library on the first call, so that commands that are refused or
     * mistyped never load it.
     *
     * @return the answer as the library gave it; {@code null} if it gave none
     * @throws ConsoleException with {@link ExitCodes#UNUSABLE} if the library cannot be loaded
     */
    String forwardAndHandleRequest(String request);
}
