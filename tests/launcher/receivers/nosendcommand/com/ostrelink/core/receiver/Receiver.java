package com.ostrelink.core.receiver;

/** Test receiver without sendCommand. */
public final class Receiver {
    private Receiver() {}

    public static byte[] heartBeat(byte[] message) {
        return message;
    }

    public static String getRuntimeInfo() {
        return "";
    }
}
