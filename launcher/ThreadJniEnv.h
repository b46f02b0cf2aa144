#pragma once

#include <jni.h>

#include <memory>

// Gives the current thread a JNIEnv* for as long as the object lives: takes the environment of a
// thread that is attached already, attaches one that is not, and detaches on destruction exactly
// when it was the one that attached. Nesting is therefore safe.
// Hazard: the detach acts on the current thread, so destroy the object on the thread that made
// it, and never while that thread still holds Java frames or local references of its own.
class ThreadJniEnv {
public:
    explicit ThreadJniEnv(JavaVM* jvm);
    ~ThreadJniEnv();
    ThreadJniEnv(const ThreadJniEnv&) = delete;
    ThreadJniEnv& operator=(const ThreadJniEnv&) = delete;

    JNIEnv* m_jniEnv = nullptr;

private:
    JavaVM* m_javaVm = nullptr;
    bool m_attached = false;
};

// The environment of the thread that created the JVM; keeps that thread attached until the
// process ends. One slot for the process, not one per thread.
extern std::unique_ptr<ThreadJniEnv> threadJniEnv;

// The first caller fills threadJniEnv and gets its environment. A later caller on the same thread
// gets the same environment; a caller on any other thread gets one of its own, attached until
// that thread ends, never the first caller's (a JNIEnv* is good on one thread only).
JNIEnv* getJniEnvForThread(JavaVM* jvm);
