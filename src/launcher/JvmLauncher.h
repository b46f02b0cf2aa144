#pragma once

#include <jni.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "contracts/RuntimeOperationMode.h"
#include "launcher/NativeLauncher.h"
#include "support/Failures.h"
#include "support/OstrelinkNativeException.h"
#include "support/ThreadRecord.h"

class JvmLauncher;

// Body of the launch thread: creates the JVM with the launcher's arguments and translates the
// result. Throws on failure; the thread that starts it carries the exception back to the caller.
void createJavaVM(JvmLauncher* launcher);

// The one object that knows the JVM of the process. Initialize binds the JVM library; the JVM
// itself starts inside the first command that needs Java. Replies are kept by the calling thread
// itself, one per launcher, until it reads them or ends.
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
    using Failure = Ostrelink::Native::Failures::Failure;
    friend void createJavaVM(JvmLauncher* launcher);

    // The steps, called only by this class's own files.
    // Locating and loading the JVM library; each step leaves its result in the fields.
    void SetJvmRuntimePath();
    void LoadJvmSharedLibraryAndExportedFunctions();
    void GetFunctionsPointers();

    // Starting the JVM: adopt the one that runs in the process, or create one (Called only).
    int InitializeJvm();
    // Refuses a start that can't work: bad OSTRELINK_JVM_OPTIONS (which it reads into
    // m_extraJvmOptions) or options files it names, a class path or second JDWP agent in the
    // JVM's own variables, an installation path the class path can't hold, a busy debug port.
    void CheckBeforeCreatingJvm();
    int CreateClassPath();
    int GetReceiverClass();
    void HandleLaunchJvmError();
    // Raises a failed or abandoned start (031 to 037) with the user's options and the JVM's
    // message.
    [[noreturn]] void RaiseStartFailure(Failure failure);

    int HandleLoadLibraryCommand(unsigned char* message, int length);
    void AddToLibrariesToLoad(std::string libraryPath);

    // Returns false when no Java exception is pending; otherwise describes it, clears it and
    // throws failure through HandleException. Inline: it runs five times per Java command.
    bool CheckAndHandleJvmException(JNIEnv* env, Failure failure, bool clearException) {
        if (env->ExceptionCheck() == JNI_FALSE) {
            return false;
        }
        RaisePendingJvmException(env, failure, clearException);
    }
    [[noreturn]] void RaisePendingJvmException(JNIEnv* env, Failure failure, bool clearException);
    // Appends the runtime info to the text of exception and throws the result.
    [[noreturn]] void HandleException(OstrelinkNativeException exception);

    // 0 before the JVM is up. m_JvmEnv belongs to the thread that brought the JVM up: call these
    // on that thread only.
    int GetVersion();
    // Unused here: kept as the launcher's documented surface beside GetVersion.
    std::string GetVersionString();
    std::string GetRuntimeInfoFromManagedRuntime();
    std::string GetRuntimeInfoFromNativeLevel();

    // The calling thread's reply in this launcher; see JvmLauncher.cpp.
    ThreadRecord::Reply& ReplyOfThisThread();
    // Stores the bytes as the calling thread's reply, dropping an unread one; returns the size.
    int StoreReply(const unsigned char* bytes, std::size_t size);
    int StoreAcknowledgeReply();
    int SendToJava(unsigned char* message, int length);
    void StartJvmOnce();
    int CallJava(unsigned char* message, int length);
    int CallJavaOn(JNIEnv* env, unsigned char* message, int length);
    // Builds the failure's text and throws it through HandleException.
    [[noreturn]] void RaiseLauncherException(Failure failure,
                                             const std::string& detail = std::string());
    // After a JNI call that returned null: prints and clears a Java exception that may be pending,
    // so that no further JNI call (the runtime info above all) runs with one. True if one was.
    static bool ClearPendingJavaException(JNIEnv* env);

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
    // The options of OSTRELINK_JVM_OPTIONS, read at each start that creates a JVM.
    std::vector<std::string> m_extraJvmOptions;
    const std::string m_receiverClassName = "com/ostrelink/core/receiver/Receiver";
    // A global reference, so that every thread may use it; taken from FindClass's local one.
    jclass m_receiverClass = nullptr;
    jmethodID m_sendCommandMethod = nullptr;
    jmethodID m_heartBeatMethod = nullptr;
    jmethodID m_getRuntimeInfoMethod = nullptr;
    const std::string m_runtimeName = "Jvm";
    // Recorded at each start as documented launcher state; nothing reads it.
    jint m_jniVersion = 0;
    // Held by Initialize and by the start of the JVM.
    std::mutex m_jvmInitMutex;
    // Guards m_librariesToLoad and m_jvmLibraryPath, which the runtime info reads on any thread.
    std::mutex m_librariesMutex;
    std::atomic<bool> m_jvmInitialized{false};
    bool m_debugMode = false;
    // OSTRELINK_KEEP_THREADS_ATTACHED: a thread that a command attaches stays attached, as a
    // daemon, until it ends, instead of being detached after the command.
    bool m_keepThreadsAttached = false;
    jint(JNICALL* m_createJavaVM)(JavaVM**, void**, void*) = nullptr;
    jint m_createJvmResult = 0;
    JNIEnv* m_JvmEnv = nullptr;
    JavaVM* m_jvm = nullptr;
    JavaVMInitArgs m_jvmInitArgs{};
    // Set in a child process forked after this library began to start or adopt a JVM: it does not
    // survive fork, so Java commands fail there at once (065) instead of hanging, and the runtime
    // info leaves Java out. Process-wide, as the JVM is.
    static std::atomic<bool> jvmLeftInParent;
    // Sets jvmLeftInParent in every child forked from now on.
    static void WatchForks();
    // Names this launcher's replies in the threads' stores; never reused, unlike an address.
    const std::uint64_t m_id;
};
