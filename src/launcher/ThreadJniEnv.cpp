#include "launcher/ThreadJniEnv.h"

#include <iostream>
#include <memory>
#include <string>

#include "support/OstrelinkNativeException.h"

namespace {

[[noreturn]] void printAndThrow(const std::string& text) {
    std::cout << text << std::endl;
    throw OstrelinkNativeException(text, "Unknown");
}

}  // namespace

ThreadJniEnv::ThreadJniEnv(JavaVM* jvm, Attach attach) {
    if (jvm == nullptr) {
        throw OstrelinkNativeException("ThreadJniEnv: JavaVM pointer is null", "Unknown");
    }
    m_jniEnv = nullptr;
    m_javaVm = jvm;
    m_attached = false;
    const jint result = jvm->GetEnv(reinterpret_cast<void**>(&m_jniEnv), JNI_VERSION_1_8);
    if (result == JNI_EDETACHED) {
        void** env = reinterpret_cast<void**>(&m_jniEnv);
        const jint attached = attach == Attach::AsDaemon
                                  ? jvm->AttachCurrentThreadAsDaemon(env, nullptr)
                                  : jvm->AttachCurrentThread(env, nullptr);
        if (attached != JNI_OK) {
            printAndThrow("ThreadJniEnv: failed to attach thread to JVM");
        }
        m_attached = true;
    } else if (result == JNI_EVERSION) {
        printAndThrow("ThreadJniEnv: JNI version not supported");
    } else if (result != JNI_OK) {
        printAndThrow("ThreadJniEnv: unknown error getting JNI environment");
    }
    if (m_jniEnv == nullptr) {
        if (m_attached) {
            m_javaVm->DetachCurrentThread();
        }
        throw OstrelinkNativeException("ThreadJniEnv: m_jniEnv is nullptr after initialization",
                                       "Unknown");
    }
}

ThreadJniEnv::~ThreadJniEnv() {
    if (m_attached && m_javaVm != nullptr) {
        m_javaVm->DetachCurrentThread();
    }
}

// Thread-local rather than keyed by thread id: the id of a thread that has ended is handed to
// the next new thread, which must not get the old environment. Only an attachment of our own is
// kept: a thread the host attached may be detached by the host between two commands, so its
// environment is asked for every time.
JNIEnv* getJniEnvForThread(JavaVM* jvm) {
    thread_local std::unique_ptr<ThreadJniEnv> ownEnv;
    if (ownEnv != nullptr) {
        return ownEnv->m_jniEnv;
    }
    JNIEnv* hostEnv = nullptr;
    if (jvm != nullptr &&
        jvm->GetEnv(reinterpret_cast<void**>(&hostEnv), JNI_VERSION_1_8) == JNI_OK) {
        return hostEnv;
    }
    ownEnv = std::make_unique<ThreadJniEnv>(jvm, ThreadJniEnv::Attach::AsDaemon);
    return ownEnv->m_jniEnv;
}
