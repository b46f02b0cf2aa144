package com.ostrelink.core.receiver;

import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;

// Test receiver: echoes, marks heart beats, and answers the payload "jvm-arguments" with the JVM's
// options one a line, "threads" with the number of live threads and whether the calling one is a
// daemon, "throw" by throwing, "null" with null and "empty" with an empty array. Its runtime info
// is the class path, or as the system property probe.info says: "throw" throws, "null" is null.
public final class Receiver {
    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        int from = Math.min(24, message.length);
        String text = new String(message, from, message.length - from, StandardCharsets.UTF_8);
        switch (text) {
            case "jvm-arguments":
                return String.join("\n", ManagementFactory.getRuntimeMXBean().getInputArguments())
                        .getBytes(StandardCharsets.UTF_8);
            case "threads":
                return (Thread.activeCount() + " " + Thread.currentThread().isDaemon())
                        .getBytes(StandardCharsets.UTF_8);
            case "throw":
                throw new IllegalStateException("the probe refuses the command");
            case "null":
                return null;
            case "empty":
                return new byte[0];
            default:
                return message;
        }
    }

    public static byte[] heartBeat(byte[] message) {
        byte[] reply = Arrays.copyOf(message, message.length + 1);
        reply[message.length] = (byte) 'H';
        return reply;
    }

    public static String getRuntimeInfo() {
        String info = System.getProperty("probe.info", "");
        if (info.equals("throw")) {
            throw new IllegalStateException("the probe refuses the runtime info");
        }
        return info.equals("null") ? null
                : "java.class.path=" + System.getProperty("java.class.path") + "\n";
    }
}
