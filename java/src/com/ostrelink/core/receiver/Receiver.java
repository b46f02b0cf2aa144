package com.ostrelink.core.receiver;

import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * Entry point of commands that native code hands to the JVM, one whole message per call.
 *
 * <p>A request is the 11-byte header, the operation in byte 11, bytes 12 to 23 reserved, and the
 * payload text from byte 24 (docs/protocol.md). Every method is static and keeps no state, so any
 * number of threads may call at once. None of them throws: a bad request or a failure in the
 * called code comes back as an exception reply.
 */
public final class Receiver {
    /** Offsets and sizes of the message layout. */
    static final int TARGET_RUNTIME = 0;
    static final int CALLING_RUNTIME = 9;
    static final int COMMAND_TYPE = 10;
    static final int OPERATION = 11;
    static final int PAYLOAD_TEXT = 24;

    /** Operations, byte 11 of a request. */
    static final byte ECHO = 0;
    static final byte INVOKE = 1;
    static final byte RUNTIME_INFO = 2;

    /** commandType of an ordinary reply and of a reply that reports an exception. */
    static final byte PLAIN_REPLY = 0;
    static final byte EXCEPTION_REPLY = 10;

    /** Runtime code of the JVM. */
    static final byte JVM_RUNTIME = 2;

    /** The same 17 bytes the native layer answers a health check with. */
    private static final byte[] ACKNOWLEDGE = {2, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 2, 4, 0, 0, 0, 0};

    private static final String SEPARATOR = "\0";

    private Receiver() {}

    /**
     * Runs one command. Echo, the road that costs the least, answers with the very array it was
     * given: nothing is copied or allocated, and the native caller copies the reply out anyway.
     */
    public static byte[] sendCommand(byte[] message) {
        if (message != null && message.length > OPERATION && message[OPERATION] == ECHO) {
            return message;
        }
        return dispatch(message);
    }

    /** Answers a heartbeat with a fresh copy of the 17-byte acknowledgement, whatever it holds. */
    public static byte[] heartBeat(byte[] message) {
        return ACKNOWLEDGE.clone();
    }

    /** The JVM's version, vendor, home and class path, one "key: value" line each. */
    public static String getRuntimeInfo() {
        StringBuilder text = new StringBuilder();
        for (String key : new String[] {"java.version", "java.vendor", "java.home", "java.class.path"}) {
            text.append(key).append(": ").append(System.getProperty(key, "")).append('\n');
        }
        return text.toString();
    }

    private static byte[] dispatch(byte[] message) {
        if (message == null) {
            return exceptionReply(null, new IllegalArgumentException("no message"));
        }
        if (message.length <= OPERATION) {
            return exceptionReply(message, new IllegalArgumentException("message of "
                    + message.length + " bytes has no operation byte at offset " + OPERATION));
        }
        try {
            switch (message[OPERATION]) {
                case INVOKE:
                    return reply(message, PLAIN_REPLY, invoke(payloadFields(message)));
                case RUNTIME_INFO:
                    return reply(message, PLAIN_REPLY, getRuntimeInfo());
                default:
                    throw new IllegalArgumentException(
                            "unknown operation " + (message[OPERATION] & 0xff));
            }
        } catch (Throwable failure) {
            return exceptionReply(message, failure);
        }
    }

    /** The payload text split at every NUL: n separators give n + 1 fields, empty ones kept. */
    private static List<String> payloadFields(byte[] message) {
        if (message.length < PAYLOAD_TEXT) {
            throw new IllegalArgumentException("message of " + message.length
                    + " bytes ends before the payload text at offset " + PAYLOAD_TEXT);
        }
        String text = new String(message, PAYLOAD_TEXT, message.length - PAYLOAD_TEXT,
                StandardCharsets.UTF_8);
        List<String> fields = new ArrayList<String>();
        int start = 0;
        int end;
        while ((end = text.indexOf(SEPARATOR, start)) >= 0) {
            fields.add(text.substring(start, end));
            start = end + 1;
        }
        fields.add(text.substring(start));
        return fields;
    }

    /** Calls a public static method that takes as many Strings as there are arguments. */
    private static String invoke(List<String> fields) throws Throwable {
        if (fields.size() < 2 || fields.get(0).isEmpty() || fields.get(1).isEmpty()) {
            throw new IllegalArgumentException(
                    "invoke needs a class name and a method name separated by NUL");
        }
        ClassLoader loader = Receiver.class.getClassLoader();
        if (loader == null) {
            loader = ClassLoader.getSystemClassLoader();
        }
        Class<?> target = Class.forName(fields.get(0), true, loader);
        Object[] arguments = fields.subList(2, fields.size()).toArray();
        Class<?>[] parameterTypes = new Class<?>[arguments.length];
        Arrays.fill(parameterTypes, String.class);
        Method method = target.getMethod(fields.get(1), parameterTypes);
        if (!Modifier.isStatic(method.getModifiers())) {
            throw new NoSuchMethodException(method + " is not static");
        }
        Object result;
        try {
            result = method.invoke(null, arguments);
        } catch (InvocationTargetException thrown) {
            throw thrown.getCause() != null ? thrown.getCause() : thrown;
        }
        return method.getReturnType() == void.class ? "" : String.valueOf(result);
    }

    private static byte[] exceptionReply(byte[] request, Throwable failure) {
        if (failure instanceof ExceptionInInitializerError && failure.getCause() != null) {
            failure = failure.getCause();
        }
        String message = failure.getMessage();
        String text = failure.getClass().getName() + (message != null ? ": " + message : "");
        return reply(request, EXCEPTION_REPLY, text);
    }

    /**
     * A reply goes back to the runtime that called: targetRuntime is the request's callingRuntime,
     * callingRuntime is the JVM, and byte 11 repeats the request's operation.
     */
    private static byte[] reply(byte[] request, byte commandType, String payloadText) {
        byte[] text = payloadText.getBytes(StandardCharsets.UTF_8);
        byte[] reply = new byte[PAYLOAD_TEXT + text.length];
        if (request != null && request.length > CALLING_RUNTIME) {
            reply[TARGET_RUNTIME] = request[CALLING_RUNTIME];
        }
        if (request != null && request.length > OPERATION) {
            reply[OPERATION] = request[OPERATION];
        }
        reply[CALLING_RUNTIME] = JVM_RUNTIME;
        reply[COMMAND_TYPE] = commandType;
        System.arraycopy(text, 0, reply, PAYLOAD_TEXT, text.length);
        return reply;
    }
}
