package com.norvane.mendline.console;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * The display numbers that the session table has records for. The library takes them from the agent's
 * configuration when the collector starts and never tells them, so they are worked out here by the
 * same rules.
 */
record DisplayRange(int min, int max) {

    static final Path CONFIGURATION = Path.of("/etc/norvane/config");
    static final DisplayRange DEFAULT = new DisplayRange(100, 159);

    private static final int HIGHEST = 59535;
    private static final int SPREAD = 59;

    /**
     * @param previous what the library holds now; bounds that the configuration does not set stay
     */
    static DisplayRange load(Path configuration, DisplayRange previous) {
        try {
            return read(Files.readAllLines(configuration, StandardCharsets.ISO_8859_1), previous);
        } catch (IOException e) {
            return previous;
        }
    }

    static DisplayRange read(List<String> lines, DisplayRange previous) {
        // The library looks at what stands before the first section only, but a mistake anywhere in
        // the file makes it leave the whole file aside.
        Map<String, String> top = new HashMap<>();
        Map<String, String> current = top;
        for (String raw : lines) {
            String line = raw.strip();
            if (line.isEmpty() || line.startsWith(";") || line.startsWith("#")) {
                continue;
            }
            int equals = line.indexOf('=');
            int bracket = line.indexOf(']');
            String key;
            if (line.startsWith("[")) {
                key = bracket < 0 ? null : line.substring(1, bracket).strip();
                current = top;
            } else {
                key = equals < 1 ? null : line.substring(0, equals).strip();
            }
            String value = line.startsWith("[") ? "" : line.substring(equals + 1).strip();
            if (key == null || current.putIfAbsent(key, value) != null) {
                return clamp(previous.min, previous.max);
            }
            if (line.startsWith("[")) {
                current = new HashMap<>();
            }
        }
        return clamp(number(top.get("Desktop.displayNumberMin"), previous.min),
                number(top.get("Desktop.displayNumberMax"), previous.max));
    }

    private static int number(String text, int otherwise) {
        try {
            return text == null ? otherwise : Integer.parseInt(text);
        } catch (NumberFormatException e) {
            return otherwise;
        }
    }

    private static DisplayRange clamp(int min, int max) {
        if (min > max || max < 0 || min > HIGHEST) {
            return DEFAULT;
        }
        int top = Math.min(max, HIGHEST);
        int bottom = Math.max(Math.min(min, top), 0);
        return new DisplayRange(bottom, Math.min(top, bottom + SPREAD));
    }

    /** The one display number that has no record and that the library lets through all the same. */
    int justBeyond() {
        return max + 1;
    }
}
