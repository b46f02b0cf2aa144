package com.ostrelink.core.receiver;

/** Test receiver: answers an empty array, and a runtime info without a final end of line. */
public final class Receiver {
    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        return new byte[0];
    }

    public static byte[] heartBeat(byte[] message) {
        return new byte[0];
    }

    public static String getRuntimeInfo() {
        return "managed part";
    }
}
