package com.norvane.mendline.console;

import com.norvane.vdi.agent.standalone.utility.MendLineNative;
import java.nio.file.Path;

/** The real library, loaded when it is first needed. Used under the lock of {@link Connection}. */
final class NativeLibrary implements MendlineLibrary {

    private final LibraryLocation location;
    private boolean loaded;

    NativeLibrary(LibraryLocation location) {
        this.location = location;
    }

    @Override
    public String forwardAndHandleRequest(String request) {
        Path file = location.file();
        try {
            if (!loaded) {
                load(file);
                loaded = true;
            }
            return MendLineNative.forwardAndHandleRequest(request);
        } catch (UnsatisfiedLinkError e) {
            // Also thrown by the call itself, when a file of that name lacks the one function.
            throw new ConsoleException(ExitCodes.UNUSABLE,
                    "cannot load the library" + (file == null ? "" : " " + file) + ": "
                            + e.getMessage());
        }
    }

    private static void load(Path file) {
        if (file == null) {
            MendLineNative.load();
        } else {
            MendLineNative.load(file);
        }
    }
}
