#include "launcher/ThreadJniEnv.h"

#include <iostream>
#include <string>

#include "support/OstrelinkNativeException.h"

std::unique_ptr<ThreadJniEnv> threadJniEnv;

namespace {

// True on the thread that filled threadJniEnv. Thread-local rather than a thread id: the id of
// a thread that has ended is handed to the next new thread, which must not get the old env.
thread_local bool ownsThreadJniEnv = false;

[[noreturn]] void printAndThrow(const std::string& text) {
    std::cout << text << std::endl;
    throw OstrelinkNativeException(text, "Unknown");
}

}  // namespace

ThreadJniEnv::ThreadJniEnv(JavaVM* jvm) {
    if (jvm == nullptr) {
        throw OstrelinkNativeException("ThreadJniEnv: JavaVM pointer is null", "Unknown");
    }
    m_jniEnv = nullptr;
    m_javaVm = jvm;
    m_attached = false;
    const jint result = jvm->GetEnv(reinterpret_cast<void**>(&m_jniEnv), JNI_VERSION_1_8);
    if (result == JNI_EDETACHED) {
        if (jvm->AttachCurrentThread(reinterpret_cast<void**>(&m_jniEnv), nullptr) != JNI_OK) {
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

JNIEnv* getJniEnvForThread(JavaVM* jvm) {
    if (threadJniEnv == nullptr) {
        auto env = std::make_unique<ThreadJniEnv>(jvm);
        ownsThreadJniEnv = true;
        threadJniEnv = std::move(env);
        return threadJniEnv->m_jniEnv;
    }
    if (ownsThreadJniEnv) {
        return threadJniEnv->m_jniEnv;
    }
    // Ends with its thread and detaches it then, if it was the one that attached it.
    thread_local std::unique_ptr<ThreadJniEnv> ownEnv;
    if (ownEnv == nullptr) {
        ownEnv = std::make_unique<ThreadJniEnv>(jvm);
    }
    return ownEnv->m_jniEnv;
}
