#pragma once

#include <jni.h>

// Owns the elements of a Java byte array taken for reading. They are released with JNI_ABORT:
// nothing is ever written back into the Java array.
class ScopedByteArrayElements {
public:
    ScopedByteArrayElements(JNIEnv* env, jbyteArray array)
        : m_env(env), m_array(array), m_elements(env->GetByteArrayElements(array, nullptr)) {}
    ~ScopedByteArrayElements() {
        if (m_elements != nullptr) {
            m_env->ReleaseByteArrayElements(m_array, m_elements, JNI_ABORT);
        }
    }
    ScopedByteArrayElements(const ScopedByteArrayElements&) = delete;
    ScopedByteArrayElements& operator=(const ScopedByteArrayElements&) = delete;

    const jbyte* get() const { return m_elements; }

private:
    JNIEnv* m_env;
    jbyteArray m_array;
    jbyte* m_elements;
};
