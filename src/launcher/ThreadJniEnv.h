#pragma once

#include <jni.h>

// Gives the current thread a JNIEnv* for as long as the object lives: takes the environment of a
// thread that is attached already, attaches one that is not, and detaches on destruction exactly
// when it was the one that attached. Nesting is therefore safe.
// Hazard: the detach acts on the current thread, so destroy the object on the thread that made
// it, and never while that thread still holds Java frames or local references of its own.
// An attachment as a daemon never holds up the JVM's shutdown (DestroyJavaVM waits for every
// other non-daemon thread); a plain one makes the shutdown wait until the object is gone.
class ThreadJniEnv {
public:
    enum class Attach { Plain, AsDaemon };
    explicit ThreadJniEnv(JavaVM* jvm, Attach attach = Attach::Plain);
    ~ThreadJniEnv();
    ThreadJniEnv(const ThreadJniEnv&) = delete;
    ThreadJniEnv& operator=(const ThreadJniEnv&) = delete;

    JNIEnv* m_jniEnv = nullptr;

private:
    friend JNIEnv* getJniEnvForThread(JavaVM* jvm);

    JavaVM* m_javaVm = nullptr;
    bool m_attached = false;
};

// The environment of the calling thread for the rest of its life: a thread that is not attached
// is attached as a daemon, so that it never keeps the JVM from exiting, and detached when it ends
// (its ThreadRecord). A thread attached by someone else gets its current environment and stays
// theirs to detach. A JNIEnv* is good on one thread only, so every thread gets its own; and the
// host may detach the thread between two calls, so the result is good until then only.
JNIEnv* getJniEnvForThread(JavaVM* jvm);
