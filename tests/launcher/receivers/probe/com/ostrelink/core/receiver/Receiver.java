package com.ostrelink.core.receiver;

import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;

// Test receiver: echoes (the tests' messages are ASCII, so their text gives the same bytes back),
// answers heart beats with "H", and answers a payload that ends with "jvm-arguments" with the
// JVM's options one a line, "threads" with the number of live threads and whether the calling one
// is a daemon. Its runtime info is the class path. The system property probe.info "throw" makes
// every command and the runtime info throw, "null" answer null.
public final class Receiver {
    public static byte[] sendCommand(byte[] message) {
        if (!System.getProperty("probe.info", "").isEmpty()) {
            return getRuntimeInfo() == null ? null : message;
        }
        String text = new String(message, StandardCharsets.UTF_8);
        if (text.endsWith("jvm-arguments")) {
            text = String.join("\n", ManagementFactory.getRuntimeMXBean().getInputArguments());
        } else if (text.endsWith("threads")) {
            text = Thread.activeCount() + " " + Thread.currentThread().isDaemon();
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
        return info.isEmpty() ? "java.class.path=" + System.getProperty("java.class.path") + "\n"
                : null;
    }
}
