package com.ostrelink.core.receiver;

/** Test receiver without getRuntimeInfo. */
public final class Receiver {
    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        return message;
    }

    public static byte[] heartBeat(byte[] message) {
        return message;
    }
}
