package com.ostrelink.core.receiver;

/** Entry point of commands that native code hands to the JVM. */
public final class Receiver {
    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        return message;
    }

    public static byte[] heartBeat(byte[] message) {
        return message;
    }

    public static String getRuntimeInfo() {
        return "";
    }
}
