package com.ostrelink.core.receiver;

/** Test receiver: every command and every runtime-info query throws; heart beats echo. */
public final class Receiver {
    private Receiver() {}

    public static byte[] sendCommand(byte[] message) {
        throw new IllegalStateException("test receiver refuses the command");
    }

    public static byte[] heartBeat(byte[] message) {
        return message;
    }

    public static String getRuntimeInfo() {
        throw new IllegalStateException("test receiver refuses the runtime info");
    }
}
