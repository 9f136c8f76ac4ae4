package com.norvane.mendline.console;

import java.util.Locale;

/** Short forms of large numbers for people. */
final class HumanUnits {

    private static final String[] UNITS = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};

    private HumanUnits() {
    }

    /** @param bytes unsigned */
    static String bytes(long bytes) {
        if (bytes >= 0 && bytes < 1024) {
            return bytes + " B";
        }
        double value = (bytes >>> 1) * 2.0 + (bytes & 1);
        int unit = 0;
        // Compared as it will be printed, so that nothing reads "1024.0 KiB".
        while (Math.round(value * 10) >= 10240 && unit < UNITS.length - 1) {
            value /= 1024;
            unit++;
        }
        return String.format(Locale.ROOT, "%.1f %s", value, UNITS[unit]);
    }

    /** @param seconds not negative */
    static String age(long seconds) {
        if (seconds < 60) {
            return seconds + "s";
        }
        if (seconds < 3600) {
            return seconds / 60 + "m" + seconds % 60 + "s";
        }
        if (seconds < 86400) {
            return seconds / 3600 + "h" + seconds % 3600 / 60 + "m";
        }
        return seconds / 86400 + "d" + seconds % 86400 / 3600 + "h";
    }
}
