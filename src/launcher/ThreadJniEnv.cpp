#include "launcher/ThreadJniEnv.h"

#include <unistd.h>

#include <iostream>
#include <string>

#include "support/OstrelinkNativeException.h"
#include "support/ThreadRecord.h"

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

// The attachment is kept in the thread's record rather than a map keyed by thread id: the id of
// a thread that has ended is handed to the next new thread, which must not inherit it. GetEnv is
// asked every time: a host may detach the thread itself (its own attach, work, detach), and an
// environment kept from before would then be a dangling one.
JNIEnv* getJniEnvForThread(JavaVM* jvm) {
    ThreadJniEnv threadEnv(jvm, ThreadJniEnv::Attach::AsDaemon);
    if (threadEnv.m_attached) {
        ThreadRecord& record = ThreadRecord::ofThisThread();
        record.keptAttachment = jvm;
        record.keptAttachmentProcess = getpid();
        threadEnv.m_attached = false;
    }
    return threadEnv.m_jniEnv;
}
