package com.ostrelink.core.receiver;

import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;

/**
 * Test receiver: echoes, marks heart beats, reports the JVM's class path as its runtime info, and
 * answers the command "jvm-arguments" with the options the JVM was started with, one a line,
 * "max-memory" with Runtime.maxMemory, "property NAME" with that system property, and "threads"
 * with the number of live threads and whether the calling one is a daemon.
 */
public final class Receiver {
    private static final int PAYLOAD_OFFSET = 24;
    private static final byte[] JVM_ARGUMENTS = "jvm-arguments".getBytes(StandardCharsets.UTF_8);
    private static final String PROPERTY = "property ";
    private static final byte[] THREADS = "threads".getBytes(StandardCharsets.UTF_8);

    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        byte[] payload = Arrays.copyOfRange(message, Math.min(PAYLOAD_OFFSET, message.length),
                message.length);
        if (Arrays.equals(payload, JVM_ARGUMENTS)) {
            return String.join("\n", ManagementFactory.getRuntimeMXBean().getInputArguments())
                    .getBytes(StandardCharsets.UTF_8);
        }
        String text = new String(payload, StandardCharsets.UTF_8);
        if (text.equals("max-memory")) {
            return Long.toString(Runtime.getRuntime().maxMemory()).getBytes(StandardCharsets.UTF_8);
        }
        if (text.startsWith(PROPERTY)) {
            return String.valueOf(System.getProperty(text.substring(PROPERTY.length())))
                    .getBytes(StandardCharsets.UTF_8);
        }
        if (Arrays.equals(payload, THREADS)) {
            return (Thread.activeCount() + " " + Thread.currentThread().isDaemon())
                    .getBytes(StandardCharsets.UTF_8);
        }
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
