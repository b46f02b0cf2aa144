import com.ostrelink.core.transmitter.TransmitterWrapper;
import java.io.File;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicReference;

/**
 * Drives the natives of TransmitterWrapper from a real JVM, one case per process:
 * {@code java NativesProbe <case> [directory]}. Prints "PASS <case>" and exits 0, or prints
 * "FAIL <case>: ..." and exits 1.
 */
public final class NativesProbe {
    private static final int CPP = 8;
    private static final int JVM = 2;
    private static final String SHORT_TEXT = "Message byte array length is less than 11";

    private NativesProbe() {}

    public static void main(String[] args) {
        String name = args.length > 0 ? args[0] : "";
        try {
            run(name, args.length > 1 ? args[1] : null);
            System.out.println("PASS " + name);
            if (name.equals("foreignThread")) {
                exitUnaided();
                return;
            }
            System.exit(0);
        } catch (Throwable failure) {
            System.out.println("FAIL " + name + ": " + failure);
            failure.printStackTrace(System.out);
            System.exit(1);
        }
    }

    private static void check(boolean condition, String what) {
        if (!condition) {
            throw new AssertionError(what);
        }
    }

    private static void expect(int actual, int expected, String what) {
        check(actual == expected, what + ": expected " + expected + ", got " + actual);
    }

    private static void expectError(String expected) {
        String actual = TransmitterWrapper.getNativeError();
        check(expected.equals(actual),
                "getNativeError: expected \"" + expected + "\", got \"" + actual + "\"");
    }

    private static void expectErrorContains(String part) {
        String actual = TransmitterWrapper.getNativeError();
        check(actual.contains(part),
                "getNativeError: expected \"..." + part + "...\", got \"" + actual + "\"");
    }

    private static void expectErrorStartsWith(String prefix) {
        String actual = TransmitterWrapper.getNativeError();
        check(actual.startsWith(prefix),
                "getNativeError: expected \"" + prefix + "...\", got \"" + actual + "\"");
    }

    // A message to runtime target over the in-memory channel, from the JVM, with payloadText.
    private static byte[] message(int target, String payload) {
        byte[] text = payload.getBytes(StandardCharsets.US_ASCII);
        byte[] bytes = new byte[24 + text.length];
        bytes[0] = (byte) target;
        bytes[9] = (byte) JVM;
        System.arraycopy(text, 0, bytes, 24, text.length);
        return bytes;
    }

    private static void run(String name, String directory) throws Exception {
        switch (name) {
            case "undefined":
                expectError("Undefined error");
                expectError("Undefined error");
                break;
            case "empty":
                expect(TransmitterWrapper.sendCommand(new byte[0]), 0, "sendCommand(empty)");
                expect(TransmitterWrapper.readResponse(new byte[0]), 0, "readResponse(empty)");
                expectError("Undefined error");
                break;
            case "short":
                expect(TransmitterWrapper.sendCommand(new byte[5]), -2, "sendCommand(5 bytes)");
                expectError(SHORT_TEXT);
                expectError(SHORT_TEXT);
                break;
            case "readWithoutTransmitter":
                expect(TransmitterWrapper.readResponse(new byte[16]), -3, "readResponse");
                expectError("readResponse: no transmitter exists; call sendCommand first");
                break;
            case "readWithoutChannel":
                expect(TransmitterWrapper.sendCommand(new byte[0]), 0, "sendCommand(empty)");
                expect(TransmitterWrapper.readResponse(new byte[16]), -3, "readResponse");
                expectErrorContains("No transport channel selected");
                break;
            case "startUpByEmbedded":
                // Even a failing call has run AtStartUp: the transmitter exists, and a read
                // fails for want of a channel, not of a transmitter.
                expect(TransmitterWrapper.setEmbeddedRuntime(JVM, CPP, 0, null), 252,
                        "setEmbeddedRuntime(null)");
                expect(TransmitterWrapper.readResponse(new byte[16]), -3, "readResponse");
                expectErrorContains("No transport channel selected");
                break;
            case "startUpByDeploy":
                expect(TransmitterWrapper.deployRuntime(new byte[0], "text", 0), 251,
                        "deployRuntime(empty)");
                expectError(SHORT_TEXT);
                expect(TransmitterWrapper.readResponse(new byte[16]), -3, "readResponse");
                expectErrorContains("No transport channel selected");
                break;
            case "nulls":
                nulls();
                break;
            case "configSource":
                configSource(directory);
                break;
            case "echo":
                echo();
                break;
            case "channelFailures":
                channelFailures();
                break;
            case "embeddedAndDeploy":
                embeddedAndDeploy();
                break;
            case "callback":
                callback();
                break;
            case "foreignThread":
                foreignThread(directory.split(File.pathSeparator));
                break;
            case "concurrentErrors":
                concurrentErrors(directory);
                break;
            case "logShort":
                // The working directory for the error log comes from the caller; then one
                // failure.
                expect(TransmitterWrapper.setWorkingDirectory(directory), 0, "setWorkingDirectory");
                expect(TransmitterWrapper.sendCommand(new byte[5]), -2, "sendCommand(5 bytes)");
                expectError(SHORT_TEXT);
                break;
            case "sourceAndShort":
                expect(TransmitterWrapper.setConfigSource(directory), 0, "setConfigSource");
                expect(TransmitterWrapper.sendCommand(new byte[5]), -2, "sendCommand(5 bytes)");
                expectError(SHORT_TEXT);
                break;
            case "withoutConfigs":
                withoutConfigs(directory);
                break;
            default:
                throw new IllegalArgumentException("unknown case " + name);
        }
    }

    private static void nulls() {
        expect(TransmitterWrapper.sendCommand(null), -2, "sendCommand(null)");
        expectError("sendCommand: the message byte array is null");
        expect(TransmitterWrapper.readResponse(null), -3, "readResponse(null)");
        expectError("readResponse: the response byte array is null");
        expect(TransmitterWrapper.setEmbeddedRuntime(JVM, CPP, 0, null), 252,
                "setEmbeddedRuntime(null)");
        expectError("setEmbeddedRuntime: the path string is null");
        expect(TransmitterWrapper.deployRuntime(null, "text", 0), 251, "deployRuntime(null, ...)");
        expectError("deployRuntime: the message byte array is null");
        expect(TransmitterWrapper.deployRuntime(message(CPP, ""), null, 0), 251,
                "deployRuntime(..., null, ...)");
        expectError("deployRuntime: the text string is null");
        expect(TransmitterWrapper.setConfigSource(null), -6, "setConfigSource(null)");
        expectError("setConfigSource: the source string is null");
        expect(TransmitterWrapper.setWorkingDirectory(null), -7, "setWorkingDirectory(null)");
        expectError("setWorkingDirectory: the path string is null");
    }

    private static void configSource(String directory) throws IOException {
        File missing = new File(directory, "missing.conf");
        expect(TransmitterWrapper.setConfigSource(missing.getPath()), -6, "missing source");
        expectError("Configs: configuration source not found: " + missing.getPath());

        File malformed = new File(directory, "malformed.conf");
        Files.write(malformed.toPath(),
                "# comment\nlogging.level = off\njust words\n".getBytes(StandardCharsets.UTF_8));
        expect(TransmitterWrapper.setConfigSource(malformed.getPath()), -6, "malformed source");
        expectError("Configs: malformed line 3 in " + malformed.getPath()
                + ": expected key = value");

        File good = new File(directory, "good.conf");
        Files.write(good.toPath(), "logging.level = all\n".getBytes(StandardCharsets.UTF_8));
        expect(TransmitterWrapper.setConfigSource(good.getPath()), 0, "good source");

        expect(TransmitterWrapper.setWorkingDirectory(""), -7, "empty working directory");
        expectError("Configs: working directory path is empty");
        expect(TransmitterWrapper.setWorkingDirectory(directory), 0, "working directory");
    }

    private static void echo() {
        byte[] request = message(CPP, "hello");
        byte[] original = request.clone();
        int length = TransmitterWrapper.sendCommand(request);
        expect(length, request.length, "sendCommand(echo)");
        check(Arrays.equals(request, original), "sendCommand changed the Java array");

        // Longer than the reply: the rest must come back as zeros, over whatever was there.
        byte[] response = new byte[length + 8];
        Arrays.fill(response, (byte) 0x5A);
        response[0] = (byte) CPP;
        expect(TransmitterWrapper.readResponse(response), 0, "readResponse");
        check(Arrays.equals(Arrays.copyOf(response, length), request),
                "reply differs from the echoed request: " + Arrays.toString(response));
        for (int i = length; i < response.length; ++i) {
            check(response[i] == 0, "byte " + i + " behind the reply is " + response[i]);
        }
    }

    // Java -> TransmitterWrapper -> in-memory channel -> this library's own receiver, which in
    // Calling mode adopts the JVM that runs here -> Receiver.sendCommand in this same JVM.
    private static void callback() {
        byte[] request = message(JVM, "back into Java");
        int length = TransmitterWrapper.sendCommand(request);
        check(length > 0, "sendCommand(to the JVM) returned " + length + ": "
                + (length < 0 ? TransmitterWrapper.getNativeError() : ""));
        byte[] response = new byte[length];
        response[0] = (byte) JVM;
        expect(TransmitterWrapper.readResponse(response), 0, "readResponse");
        check(Arrays.equals(response, request),
                "reply differs from the request: " + Arrays.toString(response));
    }

    private static native String echoFromForeignThread(String runtimeLibrary);

    // libraries: this case's native library, then the runtime library that TransmitterWrapper
    // has loaded. A thread of the former calls back into this JVM through the latter and ends.
    private static void foreignThread(String[] libraries) {
        TransmitterWrapper.getNativeError();
        System.load(libraries[0]);
        String failure = echoFromForeignThread(libraries[1]);
        check(failure == null, "the foreign thread: " + failure);
    }

    // main returns, and the JVM has to end by itself. A thread the library left attached as an
    // ordinary thread holds it up for ever: then a daemon watchdog fails the case and ends it.
    private static void exitUnaided() {
        Thread watchdog = new Thread(() -> {
            try {
                Thread.sleep(10000);
            } catch (InterruptedException e) {
                return;
            }
            System.out.println("FAIL foreignThread: the JVM still runs 10 s after main returned");
            Runtime.getRuntime().halt(1);
        });
        watchdog.setDaemon(true);
        watchdog.start();
    }

    private static void channelFailures() {
        int length = TransmitterWrapper.sendCommand(message(CPP, "x"));
        check(length > 0, "first sendCommand returned " + length);
        byte[] response = new byte[length];
        response[0] = (byte) CPP;
        expect(TransmitterWrapper.readResponse(response), 0, "readResponse");
        // The reply has been taken: a second read fails in the called runtime.
        expect(TransmitterWrapper.readResponse(response), -3, "second readResponse");
        expectErrorStartsWith("Cpp runtime");
        String text = TransmitterWrapper.getNativeError();
        expectError(text);

        expect(TransmitterWrapper.sendCommand(message(CPP, "fail")), -2, "sendCommand(fail)");
        expectError("Cpp runtime: command failed on request");
        expect(TransmitterWrapper.sendCommand(message(CPP, "throw struct")), -2,
                "sendCommand(throw struct)");
        expectError("Ostrelink Native Exception: Exception code 035. \nA library on the way of "
                + "this call threw an exception that is not a std::exception");

        byte[] unknownConnection = message(CPP, "");
        unknownConnection[2] = 7;
        expect(TransmitterWrapper.sendCommand(unknownConnection), -2, "unknown connectionType");
        expectError("Ostrelink Native Exception: Exception code 023.");
    }

    private static void embeddedAndDeploy() {
        // Only the low 8 bits count: 2 + 256 is the JVM, 8 + 512 the Cpp runtime.
        expect(TransmitterWrapper.setEmbeddedRuntime(JVM + 256, CPP + 512, 0, "/opt/embedded"), 1,
                "setEmbeddedRuntime");
        expect(TransmitterWrapper.deployRuntime(message(CPP, ""), "text", 1 + 256), 1,
                "deployRuntime");
        // The Python runtime's library is not installed.
        expect(TransmitterWrapper.setEmbeddedRuntime(JVM, 5, 0, "/opt/embedded"), 252,
                "setEmbeddedRuntime(Python)");
        expectErrorStartsWith("Ostrelink Native Exception: Exception code 001. \nCannot load: ");
        byte[] unknownConnection = message(CPP, "");
        unknownConnection[2] = 7;
        expect(TransmitterWrapper.deployRuntime(unknownConnection, "text", 0), 251,
                "deployRuntime(unknown connectionType)");
        expectError("Ostrelink Native Exception: Exception code 023.");
    }

    // Threads fail at the same time with texts of different lengths while others read the
    // text: every read must be one whole text of the set.
    private static void concurrentErrors(String directory) throws Exception {
        expect(TransmitterWrapper.setWorkingDirectory(directory), 0, "setWorkingDirectory");
        final Set<String> texts = new HashSet<String>();
        texts.add("Undefined error");
        texts.add(SHORT_TEXT);
        final List<String> paths = new ArrayList<String>();
        for (int i = 0; i < 4; ++i) {
            String path = new File(directory, "missing-" + repeat('x', 40 * i) + ".conf").getPath();
            paths.add(path);
            texts.add("Configs: configuration source not found: " + path);
        }
        final AtomicReference<String> wrong = new AtomicReference<String>();
        final CountDownLatch start = new CountDownLatch(1);
        List<Thread> threads = new ArrayList<Thread>();
        for (int t = 0; t < 6; ++t) {
            final int index = t;
            threads.add(new Thread(() -> {
                try {
                    start.await();
                } catch (InterruptedException e) {
                    return;
                }
                for (int i = 0; i < 6; ++i) {
                    if (index % 2 == 0) {
                        TransmitterWrapper.sendCommand(new byte[3]);
                    } else {
                        TransmitterWrapper.setConfigSource(paths.get((index + i) % paths.size()));
                    }
                    String seen = TransmitterWrapper.getNativeError();
                    if (!texts.contains(seen)) {
                        wrong.compareAndSet(null, seen);
                    }
                }
            }));
        }
        threads.add(new Thread(() -> {
            for (int i = 0; i < 20000; ++i) {
                String seen = TransmitterWrapper.getNativeError();
                if (!texts.contains(seen)) {
                    wrong.compareAndSet(null, seen);
                }
            }
        }));
        for (Thread thread : threads) {
            thread.start();
        }
        start.countDown();
        for (Thread thread : threads) {
            thread.join();
        }
        check(wrong.get() == null, "torn or unknown text: \"" + wrong.get() + "\"");
    }

    private static void withoutConfigs(String libraryFile) {
        // The failure of the facade reaches the caller of setConfigSource ...
        expect(TransmitterWrapper.setConfigSource("/nowhere.conf"), -6, "setConfigSource");
        expectError("Ostrelink Native Exception: Exception code 001. \nCannot load: " + libraryFile
                + ". \nError: File not found.");
        // ... and a failure elsewhere keeps its own text.
        expect(TransmitterWrapper.sendCommand(new byte[5]), -2, "sendCommand(5 bytes)");
        expectError(SHORT_TEXT);
    }

    private static String repeat(char c, int count) {
        char[] chars = new char[count];
        Arrays.fill(chars, c);
        return new String(chars);
    }
}
