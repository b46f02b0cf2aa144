#pragma once

#include <jni.h>
#include <pthread.h>

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "contracts/RuntimeOperationMode.h"
#include "launcher/NativeLauncher.h"
#include "support/OstrelinkNativeException.h"

// The one object that knows the JVM of the process. Initialize binds the JVM library; the JVM
// itself starts inside the first command that needs Java. Replies are kept per calling thread
// until that thread reads them.
class JvmLauncher : public Ostrelink::Native::Launcher::NativeLauncher {
public:
    explicit JvmLauncher(Ostrelink::Native::Definitions::RuntimeOperationMode mode);
    ~JvmLauncher() override;
    JvmLauncher(const JvmLauncher&) = delete;
    JvmLauncher& operator=(const JvmLauncher&) = delete;

    void Initialize(unsigned char runtimeVersion) override;
    int SendCommand(unsigned char* message, int length) override;
    int ReadResponse(unsigned char* buffer, int length) override;
    unsigned char LoadOptimizedMethod(std::string method) override;
    unsigned char SetPath(unsigned char runtimeVersion, std::string path) override;
    unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                unsigned char flag) override;
    std::string GetRuntimeName() override;
    std::string GetRuntimeInfo() override;

private:
    using ReplyStore = std::unordered_map<pthread_t, std::vector<unsigned char>>;

    // Stores reply as the calling thread's only entry, dropping an unread one; returns its size.
    int StoreReply(std::vector<unsigned char> reply);
    int StoreAcknowledgeReply();
    int SendToJava(unsigned char* message, int length);

    std::vector<std::string> m_librariesToLoad;
    void* m_jvmLibraryHandle = nullptr;
    jint(JNICALL* m_getCreatedJavaVMs)(JavaVM**, jsize, jsize*) = nullptr;
    std::string m_classPathOption;
    std::string m_libraryPathOption;
    std::string m_jvmRuntimePath;
    std::string m_jvmLibraryPath;
    std::string m_classPath;
    jsize m_createdJvmCount = 0;
    JavaVMOption* m_jvmOptions = nullptr;
    const std::string m_receiverClassName = "com/ostrelink/core/receiver/Receiver";
    jclass m_receiverClass = nullptr;
    jmethodID m_sendCommandMethod = nullptr;
    jmethodID m_heartBeatMethod = nullptr;
    jmethodID m_getRuntimeInfoMethod = nullptr;
    ReplyStore m_responses;
    const std::string m_runtimeName = "Jvm";
    jint m_jniVersion = 0;
    std::mutex m_jvmInitMutex;
    std::mutex m_librariesMutex;
    std::mutex m_byteArrayMutex;
    std::mutex m_responsesMutex;
    std::atomic<bool> m_jvmInitialized{false};
    bool m_debugMode = false;
    jint(JNICALL* m_createJavaVM)(JavaVM**, void**, void*) = nullptr;
    jint m_createJvmResult = 0;
    JNIEnv* m_JvmEnv = nullptr;
    JavaVM* m_jvm = nullptr;
    JavaVMInitArgs m_jvmInitArgs{};
};
