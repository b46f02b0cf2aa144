#include "contracts/CommandHeader.h"
#include "contracts/CommandType.h"
#include "launcher/JvmLauncher.h"
#include "launcher/ScopedByteArrayElements.h"
#include "launcher/ScopedLocalRef.h"
#include "launcher/ThreadJniEnv.h"

using Ostrelink::Native::Definitions::CommandHeader;
using Ostrelink::Native::Definitions::CommandType;

int JvmLauncher::SendToJava(unsigned char* message, int length) {
    StartJvmOnce();
    if (m_jvm == nullptr) {
        RaiseLauncherException("JVM Launcher: Exception code 050. JVM not initialized");
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
        RaiseLauncherException("JVM Launcher: Exception code 051. Failed to attach thread to JVM");
    }
    // Local references go before the thread may be detached at the end of the command, and a
    // kept thread must not pile them up.
    ScopedLocalRef<jbyteArray> request(env, env->NewByteArray(length));
    if (request.get() == nullptr) {
        ClearPendingJavaException(env);
        RaiseLauncherException("JVM Launcher: Exception code 052. Failed to create byte array");
    }
    CheckAndHandleJvmException(env, "053", true);
    env->SetByteArrayRegion(request.get(), 0, length, reinterpret_cast<const jbyte*>(message));
    CheckAndHandleJvmException(env, "054", true);
    const jmethodID method = message[CommandHeader::commandType] ==
                                     static_cast<unsigned char>(CommandType::HeartBeatCommand)
                                 ? m_heartBeatMethod
                                 : m_sendCommandMethod;
    ScopedLocalRef<jbyteArray> reply(env, static_cast<jbyteArray>(env->CallStaticObjectMethod(
                                              m_receiverClass, method, request.get())));
    CheckAndHandleJvmException(env, "055", true);
    if (reply.get() == nullptr) {
        request.reset();
        RaiseLauncherException("JVM Launcher: Exception code 056. Null response from JVM");
    }
    const ScopedByteArrayElements elements(env, reply.get());
    if (elements.get() == nullptr) {
        ClearPendingJavaException(env);
        request.reset();
        reply.reset();
        RaiseLauncherException(
            "JVM Launcher: Exception code 057. Failed to get byte array elements");
    }
    CheckAndHandleJvmException(env, "058", true);
    const jsize replyLength = env->GetArrayLength(reply.get());
    CheckAndHandleJvmException(env, "059", true);
    // The last step that can fail is behind: an earlier unread reply stays until here.
    return StoreReply(reinterpret_cast<const unsigned char*>(elements.get()),
                      static_cast<std::size_t>(replyLength));
}
