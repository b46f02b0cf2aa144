package com.ostrelink.test;

/** A class of a custom library; only its jar's place on the class path matters. */
public final class First {
    private First() {}
}
