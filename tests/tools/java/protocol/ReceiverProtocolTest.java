import com.ostrelink.core.receiver.Receiver;

import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * The payload protocol of Receiver, called directly in a JVM of its own: no native layer. Usage:
 * ReceiverProtocolTest CASE; prints "PASS CASE" or "FAIL CASE: why" and exits 0 or 1.
 */
public final class ReceiverProtocolTest {
    private static final String TARGETS = "com.ostrelink.tests.host.HostTargets";

    private ReceiverProtocolTest() {}

    public static void main(String[] args) throws Exception {
        String name = args[0];
        try {
            run(name);
            System.out.println("PASS " + name);
        } catch (AssertionError failure) {
            System.out.println("FAIL " + name + ": " + failure.getMessage());
            System.exit(1);
        }
    }

    private static void run(String name) throws Exception {
        switch (name) {
            case "echo": echo(); break;
            case "invoke": invoke(); break;
            case "invokeFailures": invokeFailures(); break;
            case "badMessages": badMessages(); break;
            case "heartBeat": heartBeat(); break;
            case "runtimeInfo": runtimeInfo(); break;
            case "threads": threads(); break;
            default: throw new AssertionError("unknown case " + name);
        }
    }

    static byte[] request(int operation, String payloadText) {
        byte[] text = payloadText.getBytes(StandardCharsets.UTF_8);
        byte[] message = new byte[24 + text.length];
        message[0] = 2;
        message[9] = 8;
        message[11] = (byte) operation;
        System.arraycopy(text, 0, message, 24, text.length);
        return message;
    }

    static byte[] invokeRequest(String... fields) {
        return request(1, String.join("\0", fields));
    }

    static String payload(byte[] reply) {
        return new String(reply, 24, reply.length - 24, StandardCharsets.UTF_8);
    }

    static void check(boolean condition, String what) {
        if (!condition) {
            throw new AssertionError(what);
        }
    }

    static void checkEquals(Object expected, Object actual, String what) {
        if (!expected.equals(actual)) {
            throw new AssertionError(what + ": expected <" + expected + "> but was <" + actual + ">");
        }
    }

    /** A reply of the JVM to runtime 8 with the given commandType and payload text. */
    static void checkReply(byte[] reply, int commandType, int operation, String text, String what) {
        check(reply != null && reply.length >= 24, what + ": reply shorter than 24 bytes");
        checkEquals(8, (int) reply[0], what + ": targetRuntime");
        for (int i = 1; i <= 8; ++i) {
            checkEquals(0, (int) reply[i], what + ": header byte " + i);
        }
        checkEquals(2, (int) reply[9], what + ": callingRuntime");
        checkEquals(commandType, (int) reply[10], what + ": commandType");
        checkEquals(operation, (int) reply[11], what + ": operation");
        for (int i = 12; i < 24; ++i) {
            checkEquals(0, (int) reply[i], what + ": reserved byte " + i);
        }
        checkEquals(text, payload(reply), what + ": payload");
    }

    static void echo() {
        byte[] message = request(0, "any text \u00e9\0with NUL");
        byte[] copy = message.clone();
        byte[] reply = Receiver.sendCommand(message);
        check(reply == message, "echo answers with the request array itself");
        check(Arrays.equals(copy, reply), "echo leaves every byte as it was");
        byte[] headerOnly = new byte[12];
        headerOnly[10] = 10;
        check(Receiver.sendCommand(headerOnly) == headerOnly,
                "a 12-byte echo of any commandType comes back unchanged");
    }

    static void invoke() {
        checkReply(Receiver.sendCommand(invokeRequest(TARGETS, "greeting")), 0, 1, "hello",
                "no arguments");
        checkReply(Receiver.sendCommand(invokeRequest("java.lang.System", "getProperty",
                           "java.version")),
                0, 1, System.getProperty("java.version"), "one argument");
        checkReply(Receiver.sendCommand(invokeRequest(TARGETS, "join", "a\u00e9\u20ac", "")), 0,
                1, "a\u00e9\u20ac+", "two arguments, UTF-8 and an empty one");
        checkReply(Receiver.sendCommand(invokeRequest(TARGETS, "length", "four")), 0, 1, "4",
                "a primitive result goes through String.valueOf");
        checkReply(Receiver.sendCommand(invokeRequest(TARGETS, "nothing")), 0, 1, "null",
                "a null result");
        checkReply(Receiver.sendCommand(invokeRequest(TARGETS, "ignore", "x")), 0, 1, "",
                "a void method");
        checkReply(Receiver.sendCommand(request(1, TARGETS + "\0join\0a\0")), 0, 1, "a+",
                "a trailing NUL is a last empty argument");
    }

    static void invokeFailures() {
        checkReply(Receiver.sendCommand(invokeRequest("no.such.Type", "m")), 10, 1,
                "java.lang.ClassNotFoundException: no.such.Type", "missing class");
        checkReply(Receiver.sendCommand(invokeRequest(TARGETS, "absent")), 10, 1,
                "java.lang.NoSuchMethodException: " + TARGETS + ".absent()", "missing method");
        checkReply(Receiver.sendCommand(invokeRequest(TARGETS, "greeting", "extra")), 10, 1,
                "java.lang.NoSuchMethodException: " + TARGETS + ".greeting(java.lang.String)",
                "wrong number of arguments");
        byte[] instance = Receiver.sendCommand(invokeRequest(TARGETS, "instanceGreeting"));
        checkEquals(10, (int) instance[10], "an instance method is refused");
        check(payload(instance).startsWith("java.lang.NoSuchMethodException: ")
                        && payload(instance).endsWith(" is not static"),
                "an instance method: " + payload(instance));
        checkReply(Receiver.sendCommand(invokeRequest(TARGETS, "fail", "now")), 10, 1,
                "java.lang.IllegalStateException: broken on purpose: now",
                "the method's own exception, unwrapped");
        checkReply(Receiver.sendCommand(invokeRequest(TARGETS, "failWithoutMessage")), 10, 1,
                "java.lang.UnsupportedOperationException", "an exception without message");
        checkReply(Receiver.sendCommand(invokeRequest("com.ostrelink.tests.host.BrokenInitializer",
                           "value")),
                10, 1, "java.lang.IllegalStateException: initialiser refuses",
                "a failing static initialiser");
        checkReply(Receiver.sendCommand(request(1, TARGETS)), 10, 1,
                "java.lang.IllegalArgumentException: "
                        + "invoke needs a class name and a method name separated by NUL",
                "no method name");
        checkReply(Receiver.sendCommand(request(1, "\0greeting")), 10, 1,
                "java.lang.IllegalArgumentException: "
                        + "invoke needs a class name and a method name separated by NUL",
                "an empty class name");
    }

    static void badMessages() {
        byte[] empty = Receiver.sendCommand(new byte[0]);
        checkEquals(24 + "java.lang.IllegalArgumentException: message of 0 bytes has no operation byte at offset 11".length(),
                empty.length, "empty message");
        checkEquals(10, (int) empty[10], "empty message gives an exception reply");
        checkEquals(0, (int) empty[0], "no callingRuntime to answer to");
        byte[] header = new byte[11];
        header[9] = 8;
        checkReply(Receiver.sendCommand(header), 10, 0,
                "java.lang.IllegalArgumentException: message of 11 bytes has no operation byte at offset 11",
                "header without operation");
        byte[] nothing = Receiver.sendCommand(null);
        checkEquals(10, (int) nothing[10], "null message gives an exception reply");
        checkEquals("java.lang.IllegalArgumentException: no message", payload(nothing), "null message");
        byte[] shortInvoke = new byte[20];
        shortInvoke[9] = 8;
        shortInvoke[11] = 1;
        checkReply(Receiver.sendCommand(shortInvoke), 10, 1,
                "java.lang.IllegalArgumentException: message of 20 bytes ends before the payload text at offset 24",
                "invoke shorter than the payload offset");
        checkReply(Receiver.sendCommand(request(7, "")), 10, 7,
                "java.lang.IllegalArgumentException: unknown operation 7", "unknown operation");
        checkReply(Receiver.sendCommand(request(0xff, "")), 10, 0xff - 256,
                "java.lang.IllegalArgumentException: unknown operation 255",
                "operation bytes are unsigned");
    }

    static void heartBeat() {
        byte[] expected = {2, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 2, 4, 0, 0, 0, 0};
        byte[] beat = {2, 0, 0, 0, 0, 0, 0, 0, 0, 8, 11, 0x31, 0x32};
        byte[] first = Receiver.heartBeat(beat);
        check(Arrays.equals(expected, first), "heartbeat acknowledgement");
        first[0] = 99;
        check(Arrays.equals(expected, Receiver.heartBeat(null)),
                "every heartbeat gets a fresh acknowledgement, null included");
    }

    static void runtimeInfo() {
        String info = Receiver.getRuntimeInfo();
        check(info.endsWith("\n"), "runtime info ends with a newline");
        List<String> keys = new ArrayList<String>();
        for (String line : info.split("\n")) {
            int colon = line.indexOf(": ");
            check(colon > 0, "line without key: " + line);
            keys.add(line.substring(0, colon));
        }
        checkEquals(Arrays.asList("java.version", "java.vendor", "java.home", "java.class.path"),
                keys, "keys");
        check(info.contains("java.version: " + System.getProperty("java.version") + "\n"),
                "java.version line");
        checkReply(Receiver.sendCommand(request(2, "ignored")), 0, 2, info,
                "the runtime info operation");
    }

    static void threads() throws InterruptedException {
        final AtomicInteger failures = new AtomicInteger();
        List<Thread> workers = new ArrayList<Thread>();
        for (int t = 0; t < 8; ++t) {
            final String tag = "t" + t;
            Thread worker = new Thread(() -> {
                for (int i = 0; i < 2000; ++i) {
                    String argument = tag + "-" + i;
                    byte[] reply = Receiver.sendCommand(invokeRequest(TARGETS, "join", argument, tag));
                    byte[] failed = Receiver.sendCommand(invokeRequest(TARGETS, "fail", argument));
                    if (reply[10] != 0 || !payload(reply).equals(argument + "+" + tag)
                            || failed[10] != 10
                            || !payload(failed).endsWith("broken on purpose: " + argument)) {
                        failures.incrementAndGet();
                    }
                }
            });
            workers.add(worker);
            worker.start();
        }
        for (Thread worker : workers) {
            worker.join();
        }
        checkEquals(0, failures.get(), "replies mixed or lost between threads");
    }
}
