package com.ostrelink.core.receiver;

import java.util.Arrays;

/** Test receiver: echoes, marks heart beats, and reports the JVM's class path. */
public final class Receiver {
    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        return message;
    }

    public static byte[] heartBeat(byte[] message) {
        byte[] reply = Arrays.copyOf(message, message.length + 1);
        reply[message.length] = (byte) 'H';
        return reply;
    }

    public static String getRuntimeInfo() {
        return "java.class.path=" + System.getProperty("java.class.path") + "\n";
    }
}
