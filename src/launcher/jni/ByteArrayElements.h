#pragma once

#include <jni.h>

namespace Ostrelink::Native::Jni {

// Owns the elements of a Java byte array taken for reading. They go back with JNI_ABORT: nothing
// is ever written back into the Java array. get() is null when the JVM could not hand them out;
// an OutOfMemoryError is then pending. release() gives them up; reset() gives them back.
class ByteArrayElements {
public:
    ByteArrayElements(JNIEnv* env, jbyteArray array, jboolean* isCopy = nullptr)
        : m_env(env), m_array(array), m_elements(env->GetByteArrayElements(array, isCopy)) {}
    ~ByteArrayElements() { reset(); }
    ByteArrayElements(const ByteArrayElements&) = delete;
    ByteArrayElements& operator=(const ByteArrayElements&) = delete;

    jbyte* get() const { return m_elements; }
    unsigned char* bytes() const { return reinterpret_cast<unsigned char*>(m_elements); }

    jbyte* release() {
        jbyte* elements = m_elements;
        m_elements = nullptr;
        return elements;
    }

    void reset() {
        if (m_elements != nullptr) {
            m_env->ReleaseByteArrayElements(m_array, m_elements, JNI_ABORT);
            m_elements = nullptr;
        }
    }

private:
    JNIEnv* m_env;
    jbyteArray m_array;
    jbyte* m_elements;
};

}  // namespace Ostrelink::Native::Jni
