#pragma once

#include <jni.h>

namespace Ostrelink::Native::Jni {

// Owns the modified UTF-8 characters of a Java string. get() is null when the JVM could not hand
// them out; an OutOfMemoryError is then pending. release() gives them up; reset() frees them.
class UtfChars {
public:
    UtfChars(JNIEnv* env, jstring text, jboolean* isCopy = nullptr)
        : m_env(env), m_text(text), m_chars(env->GetStringUTFChars(text, isCopy)) {}
    ~UtfChars() { reset(); }
    UtfChars(const UtfChars&) = delete;
    UtfChars& operator=(const UtfChars&) = delete;

    const char* get() const { return m_chars; }

    const char* release() {
        const char* chars = m_chars;
        m_chars = nullptr;
        return chars;
    }

    void reset() {
        if (m_chars != nullptr) {
            m_env->ReleaseStringUTFChars(m_text, m_chars);
            m_chars = nullptr;
        }
    }

private:
    JNIEnv* m_env;
    jstring m_text;
    const char* m_chars;
};

}  // namespace Ostrelink::Native::Jni
