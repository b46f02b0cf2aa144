package com.ostrelink.core.receiver;

/** Test receiver: answers null to everything; heart beats echo. */
public final class Receiver {
    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        return null;
    }

    public static byte[] heartBeat(byte[] message) {
        return message;
    }

    public static String getRuntimeInfo() {
        return null;
    }
}
