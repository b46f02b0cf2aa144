package com.ostrelink.test;

/** A class of a second custom library. */
public final class Second {
    private Second() {}
}
