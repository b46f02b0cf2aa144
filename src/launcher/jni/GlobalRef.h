#pragma once

#include <jni.h>

namespace Ostrelink::Native::Jni {

// Owns a global reference made from a local one. reset() and the destructor delete it through
// the environment it was made with, so let the owner end on the thread that made it; a reference
// meant to outlive that thread is taken out with release(), which gives it up.
template <typename T>
class GlobalRef {
public:
    GlobalRef(JNIEnv* env, T local)
        : m_env(env),
          m_ref(local != nullptr ? static_cast<T>(env->NewGlobalRef(local)) : nullptr) {}
    ~GlobalRef() { reset(); }
    GlobalRef(const GlobalRef&) = delete;
    GlobalRef& operator=(const GlobalRef&) = delete;

    T get() const { return m_ref; }

    T release() {
        T ref = m_ref;
        m_ref = nullptr;
        return ref;
    }

    void reset() {
        if (m_ref != nullptr) {
            m_env->DeleteGlobalRef(m_ref);
            m_ref = nullptr;
        }
    }

private:
    JNIEnv* m_env;
    T m_ref;
};

}  // namespace Ostrelink::Native::Jni
