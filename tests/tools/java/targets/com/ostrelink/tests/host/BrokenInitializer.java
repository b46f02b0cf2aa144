package com.ostrelink.tests.host;

/** A class whose static initialiser fails, so that loading it through the receiver fails. */
public final class BrokenInitializer {
    static final String VALUE = compute();

    private BrokenInitializer() {}

    private static String compute() {
        if (Boolean.parseBoolean("true")) {
            throw new IllegalStateException("initialiser refuses");
        }
        return "never";
    }

    public static String value() {
        return VALUE;
    }
}
