package com.norvane.mendline.console;

import java.nio.file.Path;

/**
 * Where the library is, by order of precedence: {@code --library}, the environment variable
 * {@code MENDLINE_LIBRARY}, the launcher's default, and last the JVM's own search path.
 */
final class LibraryLocation {

    private final Path fallback;
    private Path chosen;

    /**
     * @param environment value of {@code MENDLINE_LIBRARY}, may be null
     * @param launcherDefault what the launcher passes, may be null
     */
    LibraryLocation(String environment, String launcherDefault) {
        if (environment != null && !environment.isEmpty()) {
            fallback = Path.of(environment);
        } else if (launcherDefault != null && !launcherDefault.isEmpty()) {
            fallback = Path.of(launcherDefault);
        } else {
            fallback = null;
        }
    }

    void choose(Path file) {
        chosen = file;
    }

    /** The file to load, or null for the JVM's own search. */
    Path file() {
        return chosen != null ? chosen : fallback;
    }
}
