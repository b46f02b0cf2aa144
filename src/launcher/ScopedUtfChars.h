#pragma once

#include <jni.h>

// Owns the modified UTF-8 characters of a Java string and releases them on every way out.
class ScopedUtfChars {
public:
    ScopedUtfChars(JNIEnv* env, jstring text)
        : m_env(env), m_text(text), m_chars(env->GetStringUTFChars(text, nullptr)) {}
    ~ScopedUtfChars() { release(); }
    ScopedUtfChars(const ScopedUtfChars&) = delete;
    ScopedUtfChars& operator=(const ScopedUtfChars&) = delete;

    const char* get() const { return m_chars; }

    void release() {
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
