package com.norvane.mendline.console;

import java.math.BigInteger;

/** The live counters of a session, in the order of the answer. */
enum SessionCounter {
    AUDIO_RECEIVED("audio_recv_bytes", true),
    AUDIO_SENT("audio_transmit_bytes", true),
    CDR_RECEIVED("cdr_recv_bytes", true),
    CDR_SENT("cdr_transmit_bytes", true),
    FRAME_RATE("image_frames_per_second", false),
    IMAGE_RECEIVED("image_recv_bytes", true),
    IMAGE_SENT("image_transmit_bytes", true),
    ROUND_TRIP("session_rtt", false),
    BANDWIDTH("session_bandwidth_uplink", false),
    PACKET_LOSS("session_packet_loss_uplink", false);

    private static final BigInteger BIT_63 = BigInteger.ONE.shiftLeft(63);

    private final String element;
    private final boolean bytes;

    SessionCounter(String element, boolean bytes) {
        this.element = element;
        this.bytes = bytes;
    }

    String element() {
        return element;
    }

    /** Whether it counts bytes from the session's beginning on; the others tell how things are. */
    boolean countsBytes() {
        return bytes;
    }

    /** Whether an answer may lack it: the worker can mark it as not measured. */
    boolean mayBeAbsent() {
        return this == PACKET_LOSS;
    }

    /** The figure of this text; null if it stands for "no figure". */
    BigInteger parse(String text) {
        BigInteger value = Fields.unsigned(element, text);
        // What is no number in the record is converted to bit 63 alone; a number of bytes always is
        // one, so there that is a figure like others.
        return !bytes && value.equals(BIT_63) ? null : value;
    }
}
