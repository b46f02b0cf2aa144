#pragma once

#include <jni.h>

namespace Ostrelink::Native::Jni {

// Owns one JNI local reference of the current thread and deletes it on every way out. A thread
// attached from native code frees its local references only when it detaches, so each one made
// on a command's way must go on that way. release() gives the reference up; reset() deletes it.
template <typename T>
class LocalRef {
public:
    LocalRef(JNIEnv* env, T ref) : m_env(env), m_ref(ref) {}
    ~LocalRef() { reset(); }
    LocalRef(const LocalRef&) = delete;
    LocalRef& operator=(const LocalRef&) = delete;

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

}  // namespace Ostrelink::Native::Jni
