package com.norvane.mendline.console;

import java.math.BigInteger;

/** The figures of a history record, in the order of the answer. */
enum HistoryColumn {
    OVERALL_CPU("overall_cpu", "CPU%"),
    OVERALL_MEM("overall_mem", "MEM%"),
    READS("disk_iops_reads", "READ/s"),
    WRITES("disk_iops_writes", "WRITE/s"),
    DISK_LATENCY("disk_latency", "DISK ms"),
    ROUND_TRIP("flare_latency", "RTT ms"),
    USER_CPU("cpu", "UCPU%"),
    USER_MEM("mem", "UMEM%");

    private static final BigInteger BIT_63 = BigInteger.ONE.shiftLeft(63);

    private final String element;
    private final String title;

    HistoryColumn(String element, String title) {
        this.element = element;
        this.title = title;
    }

    String element() {
        return element;
    }

    String title() {
        return title;
    }

    /** Whether a record may lack it: those of the host are always there. */
    boolean mayBeAbsent() {
        return compareTo(ROUND_TRIP) >= 0;
    }

    /** The figure of this text; null if it stands for "no figure". */
    BigInteger parse(String text) {
        boolean signed = this == ROUND_TRIP;
        BigInteger value = signed ? Fields.signed(element, text) : Fields.unsigned(element, text);
        // The library converts what is no number to bit 63 alone, whichever way that is read.
        return value.equals(signed ? BIT_63.negate() : BIT_63) ? null : value;
    }
}
