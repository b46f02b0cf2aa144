package com.ostrelink.core.receiver;

import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;

// Test receiver: echoes, answers heart beats with "H", and answers the payload "jvm-arguments"
// with the JVM's options one a line, "threads" with the number of live threads and whether the
// calling one is a daemon. Its runtime info is the class path. The
// system property probe.info "throw" makes every command and the runtime info throw, "null"
// answer null.
public final class Receiver {
    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        int from = Math.min(24, message.length);
        String text = new String(message, from, message.length - from, StandardCharsets.UTF_8);
        if (!System.getProperty("probe.info", "").isEmpty()) {
            return getRuntimeInfo() == null ? null : message;
        } else if (text.equals("jvm-arguments")) {
            text = String.join("\n", ManagementFactory.getRuntimeMXBean().getInputArguments());
        } else if (text.equals("threads")) {
            text = Thread.activeCount() + " " + Thread.currentThread().isDaemon();
        } else {
            return message;
        }
        return text.getBytes(StandardCharsets.UTF_8);
    }

    public static byte[] heartBeat(byte[] message) {
        return new byte[] {'H'};
    }

    public static String getRuntimeInfo() {
        String info = System.getProperty("probe.info", "");
        if (info.equals("throw")) {
            throw new IllegalStateException("the probe refuses");
        }
        return info.equals("null") ? null
                : "java.class.path=" + System.getProperty("java.class.path") + "\n";
    }
}
