import com.ostrelink.core.transmitter.TransmitterWrapper;

import java.nio.charset.StandardCharsets;
import java.util.Arrays;

// Java calls another runtime through TransmitterWrapper: a message to the Cpp runtime (8) over the
// in-memory channel, answered by the Cpp stand-in beside the JVM runtime library, which sends an
// unknown text back unchanged. Prints the reply's text; exit status 1 on a failure.
public final class CallCpp {
    public static void main(String[] args) {
        byte[] text = "hello from Java".getBytes(StandardCharsets.UTF_8);
        byte[] message = new byte[24 + text.length];
        message[0] = 8; // targetRuntime: Cpp; bytes 2 to 8 (connection, host, port) 0: in memory
        message[9] = 2; // callingRuntime: the JVM
        message[10] = 5; // commandType: an ordinary command
        System.arraycopy(text, 0, message, 24, text.length);

        int length = TransmitterWrapper.sendCommand(message);
        if (length < 0) {
            System.err.println("sendCommand: " + TransmitterWrapper.getNativeError());
            System.exit(1);
        }
        byte[] reply = new byte[length];
        reply[0] = message[0]; // the channel finds the reply by the target runtime in byte 0
        if (TransmitterWrapper.readResponse(reply) != 0) {
            System.err.println("readResponse: " + TransmitterWrapper.getNativeError());
            System.exit(1);
        }
        String answer = new String(Arrays.copyOfRange(reply, 24, reply.length), StandardCharsets.UTF_8);
        System.out.println("Cpp runtime answered: " + answer);
    }
}
