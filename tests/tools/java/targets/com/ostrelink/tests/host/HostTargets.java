package com.ostrelink.tests.host;

/** Static methods that the protocol tests and the tool tests call through the receiver. */
public final class HostTargets {
    /** A class whose static initialiser fails, so that loading it through the receiver fails. */
    public static final class BrokenInitializer {
        static final String VALUE = fail("initialiser");

        public static String value() {
            return VALUE;
        }
    }

    public static String greeting() {
        return "hello";
    }

    public static String join(String first, String second) {
        return first + "+" + second;
    }

    public static int length(String text) {
        return text.length();
    }

    public static String nothing() {
        return null;
    }

    public static void ignore(String text) {}

    public static String fail(String text) {
        throw new IllegalStateException("broken on purpose: " + text);
    }

    public static String failWithoutMessage() {
        throw new UnsupportedOperationException();
    }

    public String instanceGreeting() {
        return "not static";
    }
}
