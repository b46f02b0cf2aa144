#pragma once

#include <jni.h>

// Owns one JNI local reference of the current thread and deletes it on every way out. A thread
// attached from native code frees its local references only when it detaches, so each one made
// on a command's way must go on that way.
template <typename T>
class ScopedLocalRef {
public:
    ScopedLocalRef(JNIEnv* env, T ref) : m_env(env), m_ref(ref) {}
    ~ScopedLocalRef() { reset(); }
    ScopedLocalRef(const ScopedLocalRef&) = delete;
    ScopedLocalRef& operator=(const ScopedLocalRef&) = delete;
    ScopedLocalRef(ScopedLocalRef&& other) noexcept : m_env(other.m_env), m_ref(other.release()) {}
    ScopedLocalRef& operator=(ScopedLocalRef&& other) noexcept {
        if (this != &other) {
            reset();
            m_env = other.m_env;
            m_ref = other.release();
        }
        return *this;
    }

    T get() const { return m_ref; }

    T release() {
        T ref = m_ref;
        m_ref = nullptr;
        return ref;
    }

    void reset() {
        if (m_ref != nullptr) {
            m_env->DeleteLocalRef(m_ref);
            m_ref = nullptr;
        }
    }

private:
    JNIEnv* m_env;
    T m_ref;
};
