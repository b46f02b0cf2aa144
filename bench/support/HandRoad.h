#pragma once

#include <jni.h>

#include <string>

// The JVM that the library started in this process, found the way any other code of the
// process could find it: through the libjvm that is already loaded (dlopen with RTLD_NOLOAD).
// Throws std::runtime_error when no JVM runs.
JavaVM* runningJvm();
// Full path of the libjvm.so mapped into this process, or empty.
std::string loadedJvmLibraryPath();

// Attaches the current thread for its lifetime if it is not attached yet, and detaches on
// destruction exactly when it attached.
class ScopedAttach {
public:
    explicit ScopedAttach(JavaVM* jvm);
    ~ScopedAttach();
    ScopedAttach(const ScopedAttach&) = delete;
    ScopedAttach& operator=(const ScopedAttach&) = delete;

    JNIEnv* env() const { return m_env; }

private:
    JavaVM* m_jvm;
    JNIEnv* m_env = nullptr;
    bool m_attached = false;
};

bool isAttached(JavaVM* jvm);

// The road a host would write by hand to the same static method the library calls:
// NewByteArray, SetByteArrayRegion, CallStaticObjectMethod, GetArrayLength,
// GetByteArrayElements, a copy into the host's buffer, release with JNI_ABORT, two
// DeleteLocalRef, with ExceptionCheck after every call that can raise.
class HandRoad {
public:
    // Finds the receiver class through FindClass on env's thread and keeps a global reference.
    explicit HandRoad(JNIEnv* env, const char* className = "com/ostrelink/core/receiver/Receiver",
                      const char* methodName = "sendCommand");
    HandRoad(const HandRoad&) = delete;
    HandRoad& operator=(const HandRoad&) = delete;

    // One command on a thread whose env this is. Returns the reply length, at most capacity bytes
    // copied into reply. Throws std::runtime_error on a Java exception or a null reply.
    int call(JNIEnv* env, const unsigned char* message, int length, unsigned char* reply,
             int capacity) const;

private:
    jclass m_class = nullptr;
    jmethodID m_method = nullptr;
};
