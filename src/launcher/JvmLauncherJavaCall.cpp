#include <pthread.h>

#include <mutex>

#include "contracts/CommandHeader.h"
#include "contracts/CommandType.h"
#include "launcher/JvmLauncher.h"
#include "launcher/ThreadJniEnv.h"
#include "launcher/jni/ByteArrayElements.h"
#include "launcher/jni/LocalRef.h"

namespace Jni = Ostrelink::Native::Jni;

using Ostrelink::Native::Definitions::CommandHeader;
using Ostrelink::Native::Definitions::CommandType;

std::atomic<bool> JvmLauncher::jvmLeftInParent{false};

int JvmLauncher::SendToJava(unsigned char* message, int length) {
    if (jvmLeftInParent.load(std::memory_order_relaxed)) {
        RaiseLauncherException(Failure::JvmLostToFork);
    }
    StartJvmOnce();
    if (m_jvm == nullptr) {
        RaiseLauncherException(Failure::NoJvm);
    }
    return CallJava(message, length);
}

// Double-checked: once the JVM is up, the way to Java costs this one atomic load.
void JvmLauncher::StartJvmOnce() {
    if (m_jvmInitialized.load()) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_jvmInitMutex);
    if (!m_jvmInitialized.load()) {
        InitializeJvm();
        m_jvmInitialized.store(true);
    }
}

// In a forked child only the forking thread runs: the JVM is memory without its threads, and a
// call into it may wait for ever. Watched from before a start, as a fork in the middle of one
// leaves the child with the start's lock held and its JVM half made. Registered once per loaded
// library; the handler goes with the library when it is unloaded.
void JvmLauncher::WatchForks() {
    static std::once_flag watchForks;
    std::call_once(watchForks, [] {
        pthread_atfork(nullptr, nullptr,
                       [] { jvmLeftInParent.store(true, std::memory_order_relaxed); });
    });
}

// A thread the JVM has never seen is attached for this command only, by its ThreadJniEnv; or,
// when threads are kept attached, for the rest of its life, as a daemon, and detached as it
// ends. A kept thread then costs what an attached one does: attaching is the dear part.
int JvmLauncher::CallJava(unsigned char* message, int length) {
    if (m_keepThreadsAttached) {
        return CallJavaOn(getJniEnvForThread(m_jvm), message, length);
    }
    const ThreadJniEnv threadEnv(m_jvm);
    return CallJavaOn(threadEnv.m_jniEnv, message, length);
}

// No lock is taken and nothing is allocated here once the thread's reply buffer has grown: any
// number of threads may be in Java at once.
int JvmLauncher::CallJavaOn(JNIEnv* env, unsigned char* message, int length) {
    if (env == nullptr) {
        RaiseLauncherException(Failure::AttachFailed);
    }
    // Local references go before the thread may be detached at the end of the command, and a
    // kept thread must not pile them up.
    Jni::LocalRef<jbyteArray> request(env, env->NewByteArray(length));
    if (request.get() == nullptr) {
        ClearPendingJavaException(env);
        RaiseLauncherException(Failure::NewByteArrayFailed);
    }
    CheckAndHandleJvmException(env, Failure::JavaExceptionAfterNewByteArray, true);
    env->SetByteArrayRegion(request.get(), 0, length, reinterpret_cast<const jbyte*>(message));
    CheckAndHandleJvmException(env, Failure::JavaExceptionAfterSetRegion, true);
    const jmethodID method = message[CommandHeader::commandType] ==
                                     static_cast<unsigned char>(CommandType::HeartBeatCommand)
                                 ? m_heartBeatMethod
                                 : m_sendCommandMethod;
    Jni::LocalRef<jbyteArray> reply(env, static_cast<jbyteArray>(env->CallStaticObjectMethod(
                                             m_receiverClass, method, request.get())));
    CheckAndHandleJvmException(env, Failure::JavaExceptionFromCall, true);
    if (reply.get() == nullptr) {
        request.reset();
        RaiseLauncherException(Failure::NullReply);
    }
    const Jni::ByteArrayElements elements(env, reply.get());
    if (elements.get() == nullptr) {
        ClearPendingJavaException(env);
        request.reset();
        reply.reset();
        RaiseLauncherException(Failure::ArrayElementsFailed);
    }
    CheckAndHandleJvmException(env, Failure::JavaExceptionAfterArrayElements, true);
    const jsize replyLength = env->GetArrayLength(reply.get());
    CheckAndHandleJvmException(env, Failure::JavaExceptionAfterArrayLength, true);
    // The last step that can fail is behind: an earlier unread reply stays until here.
    return StoreReply(reinterpret_cast<const unsigned char*>(elements.get()),
                      static_cast<std::size_t>(replyLength));
}
