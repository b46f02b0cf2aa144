import static com.ostrelink.core.transmitter.TransmitterWrapper.*;

import java.io.File;
import java.nio.file.Files;
import java.util.*;
import java.util.concurrent.ConcurrentHashMap;

// Drives the natives of TransmitterWrapper from a real JVM: java NativesProbe FIRST
// DIRECTORY, FIRST the native that comes first in the process. After sendCommand every other
// check follows in the same JVM, in an order in which none disturbs the next. Prints
// "PASS FIRST" and exits 0, or prints the failure and exits 1.
public final class NativesProbe {
    private static final int CPP = 8;
    private static final int JVM = 2;
    private static final String SHORT = "Message byte array length is less than 11";
    private static final String NATIVE = "Ostrelink Native Exception: Exception code ";

    public static void main(String[] args) {
        try {
            if (args[0].equals("foreignThread")) {
                foreignThread(args[1].split(File.pathSeparator));
                return;
            }
            run(args[0], new File(args[1]));
            System.out.println("PASS " + args[0]);
            System.exit(0);
        } catch (Throwable failure) {
            failure.printStackTrace(System.out);
            System.exit(1);
        }
    }

    private static native String echoFromForeignThread(String runtimeLibrary);

    // A thread of another runtime, which the JVM has never seen, calls back into Java once and
    // ends; then main returns and the JVM has to end by itself. A thread the library left attached
    // as an ordinary thread would hold it up for ever: a daemon watchdog fails the case then.
    private static void foreignThread(String[] libraries) {
        getNativeError();
        System.load(libraries[0]);
        String failure = echoFromForeignThread(libraries[1]);
        check(failure == null, "the foreign thread: " + failure);
        System.out.println("PASS foreignThread");
        Thread watchdog = new Thread(() -> {
            try {
                Thread.sleep(10000);
                System.out.println("FAIL foreignThread: the JVM still runs 10 s after main returned");
                Runtime.getRuntime().halt(1);
            } catch (InterruptedException e) {
            }
        });
        watchdog.setDaemon(true);
        watchdog.start();
    }

    private static void check(boolean condition, String what) {
        if (!condition) {
            throw new AssertionError(what);
        }
    }

    // What a native returned, and the text of getNativeError then: the whole of it, or its start
    // where expected ends in "...".
    private static void is(int actual, int code, String expected) {
        String error = getNativeError();
        check(actual == code && (expected.endsWith("...")
                ? error.startsWith(expected.replace("...", "")) : error.equals(expected)),
                "expected " + code + " \"" + expected + "\", got " + actual + " \"" + error + "\"");
    }

    // A message to runtime target over the in-memory channel, from the JVM, with payload.
    private static byte[] message(int target, String payload) {
        byte[] bytes = (new String(new char[24]) + payload).getBytes();
        bytes[0] = (byte) target;
        bytes[9] = (byte) JVM;
        return bytes;
    }

    // Sends to target and reads the reply into a longer buffer, over bytes that were there: the
    // message comes back, the Java array unchanged, and zeros behind it.
    private static void roundTrip(int target, String payload) {
        byte[] request = message(target, payload), original = request.clone();
        byte[] response = message(target, payload.replaceAll(".", "Z") + "ZZZZZZZZ");
        is(sendCommand(request), request.length, SHORT);
        is(readResponse(response), 0, SHORT);
        check(Arrays.equals(request, original)
                && Arrays.equals(response, Arrays.copyOf(request, response.length)),
                "the reply " + Arrays.toString(response));
    }

    private static void run(String first, File directory) throws Exception {
        String noTransmitter = "readResponse: no transmitter exists; call sendCommand first";
        is(0, 0, "Undefined error");
        is(readResponse(new byte[16]), -3, noTransmitter);
        // Whichever native comes first runs AtStartUp, even when it fails: a read then fails for
        // want of a channel, not of a transmitter. Empty arrays ask for nothing.
        if (first.equals("setEmbeddedRuntime")) {
            is(setEmbeddedRuntime(JVM, CPP, 0, null), 252,
                    "setEmbeddedRuntime: the path string is null");
        } else if (first.equals("deployRuntime")) {
            is(deployRuntime(new byte[0], "text", 0), 251, SHORT);
        } else {
            is(sendCommand(new byte[0]), 0, noTransmitter);
            is(readResponse(new byte[0]), 0, noTransmitter);
        }
        is(readResponse(new byte[16]), -3, NATIVE + "029. \nNo transport channel selected...");
        if (!first.equals("sendCommand")) {
            return;
        }
        is(sendCommand(new byte[5]), -2, SHORT);
        is(sendCommand(null), -2, "sendCommand: the message byte array is null");
        is(readResponse(null), -3, "readResponse: the response byte array is null");
        is(deployRuntime(null, "text", 0), 251, "deployRuntime: the message byte array is null");
        is(deployRuntime(message(CPP, ""), null, 0), 251, "deployRuntime: the text string is null");
        is(setConfigSource(null), -6, "setConfigSource: the source string is null");
        is(setWorkingDirectory(null), -7, "setWorkingDirectory: the path string is null");

        // The configuration's failures reach Java.
        File missing = new File(directory, "missing.conf");
        is(setConfigSource(missing.getPath()), -6,
                "Configs: configuration source not found: " + missing);
        is(setWorkingDirectory(""), -7, "Configs: working directory path is empty");
        File source = new File(directory, "good.conf");
        Files.write(source.toPath(), ("workingDirectory = " + directory + "\n").getBytes());
        is(setConfigSource(source.getPath()), 0, "Configs: working directory path is empty");
        is(setWorkingDirectory(directory.getPath()), 0, "Configs: working directory path is empty");
        is(sendCommand(new byte[5]), -2, SHORT);

        roundTrip(CPP, "hello");
        // Java -> in-memory channel -> this library's own receiver, which in Calling mode adopts
        // the JVM that runs here -> Receiver.sendCommand in this same JVM.
        roundTrip(JVM, "back into Java");
        // The reply has been taken: a second read fails in the called runtime.
        is(readResponse(message(CPP, "        ")), -3, "Cpp runtime...");
        is(sendCommand(message(CPP, "fail")), -2, "Cpp runtime: command failed on request");
        is(sendCommand(message(CPP, "throw struct")), -2, NATIVE + "035. \nA library on the way of "
                + "this call threw an exception that is not a std::exception");
        byte[] unknownConnection = message(CPP, "");
        unknownConnection[2] = 7;
        is(sendCommand(unknownConnection), -2, NATIVE + "023.");
        is(deployRuntime(unknownConnection, "text", 0), 251, NATIVE + "023.");
        // Only the low 8 bits count: 2 + 256 is the JVM, 8 + 512 the Cpp runtime, 1 + 256 is 1.
        is(setEmbeddedRuntime(JVM + 256, CPP + 512, 0, "/opt/embedded"), 1, NATIVE + "023.");
        is(deployRuntime(message(CPP, ""), "text", 1 + 256), 1, NATIVE + "023.");
        // The Python runtime's library is not installed.
        is(setEmbeddedRuntime(JVM, 5, 0, "/opt/embedded"), 252,
                NATIVE + "001. \nCannot load: ...");
        is(sendCommand(new byte[5]), -2, SHORT);
        concurrentErrors(directory);
    }

    // Threads fail with texts of different lengths and read the text in between: every read must
    // be one whole text of the set.
    private static void concurrentErrors(File directory) throws Exception {
        Set<String> texts = ConcurrentHashMap.newKeySet();
        texts.add(SHORT);
        List<String> wrong = Collections.synchronizedList(new ArrayList<String>());
        Thread[] threads = new Thread[6];
        for (int t = 0; t < threads.length; ++t) {
            String path = new File(directory, new String(new char[40 * t + 1]).replace('\0', 'x')).getPath();
            boolean sends = t % 2 == 0;
            texts.add("Configs: configuration source not found: " + path);
            threads[t] = new Thread(() -> {
                for (int i = 0; i < 3000; ++i) {
                    int ignored = i % 500 != 0 ? 0 : sends ? sendCommand(new byte[3]) : setConfigSource(path);
                    String seen = getNativeError();
                    if (!texts.contains(seen)) {
                        wrong.add(seen);
                    }
                }
            });
            threads[t].start();
        }
        for (Thread thread : threads) {
            thread.join();
        }
        check(wrong.isEmpty(), "torn or unknown texts: " + wrong);
    }
}
