package com.ostrelink.core.receiver;

/** Test receiver without heartBeat. */
public final class Receiver {
    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        return message;
    }

    public static String getRuntimeInfo() {
        return "";
    }
}
