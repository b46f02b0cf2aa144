#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "launcher/JvmLauncher.h"
#include "launcher/JvmStartChecks.h"
#include "launcher/JvmStartHooks.h"
#include "launcher/ThreadJniEnv.h"
#include "launcher/jni/GlobalRef.h"
#include "launcher/jni/LocalRef.h"
#include "support/LibrariesFinder.h"
#include "support/Platform.h"

namespace Jni = Ostrelink::Native::Jni;

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Launcher::JvmStartHooks;
using Ostrelink::Native::LibrariesFinder::LibrariesFinder;

namespace {

constexpr int jvmHeapMegabytes = 2048;
// The text of 047 names it too.
constexpr unsigned short debugPort = 8988;
constexpr const char* jvmOptionsVariable = "OSTRELINK_JVM_OPTIONS";

// A JVM that the library does not create keeps the options it was started with.
void noteIgnoredJvmOptions() {
    static std::once_flag once;
    const char* value = std::getenv(jvmOptionsVariable);
    if (value != nullptr && *value != '\0') {
        std::call_once(once, [] {
            std::cerr << "Jvm Launcher: OSTRELINK_JVM_OPTIONS is ignored in Calling mode: the "
                         "library adopts the JVM that runs in the process as it is"
                      << std::endl;
        });
    }
}

// Clears m_jvmOptions however the start ends: the array it points to is a local of the start.
class JvmOptionsScope {
public:
    JvmOptionsScope(JavaVMOption*& field, std::size_t count)
        : m_field(field), m_options(std::make_unique<JavaVMOption[]>(count)) {
        m_field = m_options.get();
    }
    ~JvmOptionsScope() { m_field = nullptr; }
    JvmOptionsScope(const JvmOptionsScope&) = delete;
    JvmOptionsScope& operator=(const JvmOptionsScope&) = delete;

private:
    JavaVMOption*& m_field;
    std::unique_ptr<JavaVMOption[]> m_options;
};

}  // namespace

// Runs on the launch thread. JNI_CreateJavaVM attaches this thread to the new JVM as an ordinary
// thread; it detaches before it ends, or the JVM would count it as live for ever, and a host's
// DestroyJavaVM, which waits for every ordinary thread, would never return. A JVM that gives up
// the start keeps this thread inside JNI_CreateJavaVM (JvmStartHooks).
void createJavaVM(JvmLauncher* launcher) {
    launcher->m_createJvmResult = launcher->m_createJavaVM(
        &launcher->m_jvm, reinterpret_cast<void**>(&launcher->m_JvmEnv), &launcher->m_jvmInitArgs);
    launcher->HandleLaunchJvmError();
    if (launcher->m_jvm != nullptr) {
        launcher->m_jvm->DetachCurrentThread();
    }
}

int JvmLauncher::InitializeJvm() {
#if !OSTRELINK_CALLING_MODE_ADOPTS_JVM
    if (m_operationMode == RuntimeOperationMode::Calling) {
        std::cout << "Callback from Java not supported on MacOs" << std::endl;
        return 0;
    }
#endif
    if (m_getCreatedJavaVMs == nullptr) {
        RaiseLauncherException(Failure::NotInitialized);
    }
    // The JVM that gave up is half made and can't be created again: touch it no more.
    if (JvmStartHooks::abandoned()) {
        RaiseStartFailure(Failure::JvmAbandonedStart);
    }
    if (m_operationMode == RuntimeOperationMode::Calling) {
        noteIgnoredJvmOptions();
    }
    m_getCreatedJavaVMs(nullptr, 0, &m_createdJvmCount);
    if (m_createdJvmCount >= 1) {
        std::vector<JavaVM*> created(static_cast<std::size_t>(m_createdJvmCount), nullptr);
        m_getCreatedJavaVMs(created.data(), static_cast<jsize>(created.size()), &m_createdJvmCount);
        m_jvm = created[0];
        WatchForks();
        // Often a thread of another runtime that calls back into the JVM it lives in, and stays
        // attached: as a daemon, so that the Java program can still exit, and until it ends, so
        // that a library loaded and unloaded again and again leaves no thread behind. A thread
        // attached already keeps its attachment and its status.
        m_JvmEnv = getJniEnvForThread(m_jvm);
    } else if (m_operationMode == RuntimeOperationMode::Calling) {
        // Nothing to adopt: m_jvm stays null, and commands that need Java get code 050.
        return 0;
    } else if (m_operationMode == RuntimeOperationMode::Called) {
        CheckBeforeCreatingJvm();
        CreateClassPath();
        m_classPathOption = "-Djava.class.path=" + m_classPath;
        m_libraryPathOption = "-Djava.library.path=" + m_jvmRuntimePath + "/lib" +
                              OSTRELINK_CLASS_PATH_SEPARATOR + m_jvmRuntimePath + "/jre/lib";
        m_jvmInitArgs.version = JNI_VERSION_1_8;
        std::vector<std::string> furtherOptions;
        if (m_debugMode) {
            furtherOptions = {"-Xmx" + std::to_string(jvmHeapMegabytes) + "m",
                              "-Xms" + std::to_string(jvmHeapMegabytes) + "m",
                              "-Xdebug",
                              "-Xrunjdwp:transport=dt_socket,address=127.0.0.1:" +
                                  std::to_string(debugPort) + ",server=y,suspend=y",
                              "-verbose:jni",
                              "-Xcheck:jni"};
        }
        // The user's options come last, so that they win where the JVM takes the last one.
        furtherOptions.insert(furtherOptions.end(), m_extraJvmOptions.begin(),
                              m_extraJvmOptions.end());
        // The hooks first, in force while the JVM reads every other option.
        constexpr std::size_t hooks = JvmStartHooks::optionCount;
        const std::size_t optionCount = hooks + 2 + furtherOptions.size();
        const JvmOptionsScope optionsScope(m_jvmOptions, optionCount);
        JvmStartHooks::fill(m_jvmOptions);
        m_jvmOptions[hooks].optionString = m_classPathOption.data();
        m_jvmOptions[hooks + 1].optionString = m_libraryPathOption.data();
        for (std::size_t i = 0; i < furtherOptions.size(); ++i) {
            m_jvmOptions[hooks + 2 + i].optionString = furtherOptions[i].data();
        }
        m_jvmInitArgs.nOptions = static_cast<jint>(optionCount);
        m_jvmInitArgs.options = m_jvmOptions;
        m_jvmInitArgs.ignoreUnrecognized = JNI_FALSE;

        // The JVM is created on a thread of its own, joined at once: the first thread of a
        // process, or a host thread with a small stack, is a poor place to create a JVM. A
        // failure raised there is carried back and rethrown here, the same exception object. A
        // JVM that gives up keeps the thread, and this one goes on without it.
        WatchForks();
        std::exception_ptr launchFailure;
        const bool returned = JvmStartHooks::launch([this, &launchFailure] {
            try {
                createJavaVM(this);
            } catch (...) {
                launchFailure = std::current_exception();
            }
        });
        if (!returned) {
            RaiseStartFailure(Failure::JvmAbandonedStart);
        }
        if (launchFailure) {
            std::rethrow_exception(launchFailure);
        }
        // The launch thread's environment is no good here; take one of this thread.
        m_JvmEnv = getJniEnvForThread(m_jvm);
    }
    if (m_JvmEnv == nullptr) {
        RaiseLauncherException(Failure::NoEnvironmentAfterStart);
    }
    m_jniVersion = GetVersion();
    GetReceiverClass();
    return 0;
}

// What would make the start fail later, or end the process, is refused here with a text that
// says what to change.
void JvmLauncher::CheckBeforeCreatingJvm() {
    const char* value = std::getenv(jvmOptionsVariable);
    const std::string text = value == nullptr ? std::string() : value;
    using Ostrelink::Native::Launcher::splitJvmOptions;
    auto options = splitJvmOptions(text);
    if (!options) {
        RaiseLauncherException(Failure::UnclosedQuote, text);
    }
    using Ostrelink::Native::Launcher::findReservedJvmOption;
    const auto readFile = Ostrelink::Native::Launcher::readJvmOptionsFile;
    if (const auto reserved = findReservedJvmOption(*options, {true, m_debugMode}, readFile)) {
        RaiseLauncherException(Failure::ReservedJvmOption, *reserved);
    }
    // The JVM reads two variables of its own: JAVA_TOOL_OPTIONS before the library's options,
    // so that a class path there loses, and _JAVA_OPTIONS after them, so that one there wins.
    // (JDK_JAVA_OPTIONS belongs to the java launcher: an embedded JVM does not read it.)
    for (const auto& [variable, classPathWins] :
         {std::pair("JAVA_TOOL_OPTIONS", false), std::pair("_JAVA_OPTIONS", true)}) {
        const char* own = std::getenv(variable);
        const auto ownOptions = splitJvmOptions(own == nullptr ? "" : own);
        if (const auto reserved =
                ownOptions
                    ? findReservedJvmOption(*ownOptions, {classPathWins, m_debugMode}, readFile)
                    : std::nullopt) {
            RaiseLauncherException(Failure::ReservedOptionInJvmVariable,
                                   std::string(variable) + " holds " + *reserved);
        }
    }
    m_extraJvmOptions = std::move(*options);
    // The class path has no escape for its separator: the runtime jar would be cut in two.
    const std::string root = LibrariesFinder::getBinariesRootPath();
    if (root.find(OSTRELINK_CLASS_PATH_SEPARATOR) != std::string::npos) {
        RaiseLauncherException(Failure::SeparatorInInstallationPath,
                               std::filesystem::path(root).lexically_normal().string());
    }
    // The JDWP agent ends the whole process when it can't listen on its port.
    if (m_debugMode) {
        if (const int error = Ostrelink::Native::Launcher::loopbackPortBindError(debugPort)) {
            RaiseLauncherException(Failure::DebugPortBusy, std::strerror(error));
        }
    }
}

int JvmLauncher::CreateClassPath() {
    m_classPath = LibrariesFinder::getBinariesRootPath() + "Binaries/Jvm/OstrelinkJvmRuntime.jar";
    std::lock_guard<std::mutex> lock(m_librariesMutex);
    for (const auto& library : m_librariesToLoad) {
        m_classPath += OSTRELINK_CLASS_PATH_SEPARATOR + library;
    }
    return 0;
}

// The class is kept as a global reference: FindClass gives a local one of this thread, which
// other threads may not use (-Xcheck:jni aborts on it). A class already bound by an earlier
// adoption is kept, so adopting again takes no second reference.
int JvmLauncher::GetReceiverClass() {
    JNIEnv* env = m_JvmEnv;
    if (env == nullptr) {
        RaiseLauncherException(Failure::NoEnvironmentForReceiverClass);
    }
    if (m_receiverClass == nullptr) {
        const Jni::LocalRef<jclass> found(env, env->FindClass(m_receiverClassName.c_str()));
        if (ClearPendingJavaException(env) || found.get() == nullptr) {
            RaiseLauncherException(Failure::NoReceiverClass);
        }
        Jni::GlobalRef<jclass> global(env, found.get());
        if (ClearPendingJavaException(env) || global.get() == nullptr) {
            RaiseLauncherException(Failure::NoReceiverClass);
        }
        // Kept for the life of the process: every thread and every later adoption uses it.
        m_receiverClass = global.release();
    }
    const struct {
        const char* name;
        const char* signature;
        jmethodID& method;
        Failure failure;
    } methods[] = {
        {"sendCommand", "([B)[B", m_sendCommandMethod, Failure::NoSendCommandMethod},
        {"heartBeat", "([B)[B", m_heartBeatMethod, Failure::NoHeartBeatMethod},
        {"getRuntimeInfo", "()Ljava/lang/String;", m_getRuntimeInfoMethod,
         Failure::NoGetRuntimeInfoMethod},
    };
    for (const auto& method : methods) {
        method.method = env->GetStaticMethodID(m_receiverClass, method.name, method.signature);
        if (ClearPendingJavaException(env) || method.method == nullptr) {
            RaiseLauncherException(method.failure);
        }
    }
    return 0;
}

void JvmLauncher::HandleLaunchJvmError() {
    Failure failure;
    switch (m_createJvmResult) {
        case JNI_ERR:
            failure = Failure::CreateJvmErr;
            break;
        case JNI_EDETACHED:
            failure = Failure::CreateJvmDetached;
            break;
        case JNI_EVERSION:
            failure = Failure::CreateJvmVersion;
            break;
        case JNI_ENOMEM:
            failure = Failure::CreateJvmNoMemory;
            break;
        case JNI_EEXIST:
            failure = Failure::CreateJvmExists;
            break;
        case JNI_EINVAL:
            failure = Failure::CreateJvmInvalid;
            break;
        default:
            return;
    }
    RaiseStartFailure(failure);
}

// The user's options are the likeliest cause, and the JVM's own message says which one.
void JvmLauncher::RaiseStartFailure(Failure failure) {
    std::string note;
    if (!m_extraJvmOptions.empty()) {
        note = "\nJVM options from OSTRELINK_JVM_OPTIONS:";
        for (const auto& option : m_extraJvmOptions) {
            note += " [" + option + "]";
        }
    }
    const std::string message = JvmStartHooks::jvmMessage();
    if (!message.empty()) {
        note += Ostrelink::Native::Launcher::jvmMessageNote + message;
    }
    RaiseLauncherException(failure, note);
}

int JvmLauncher::GetVersion() {
    if (m_JvmEnv == nullptr) {
        return 0;
    }
    try {
        return m_JvmEnv->GetVersion();
    } catch (...) {
        return 0;
    }
}

std::string JvmLauncher::GetVersionString() {
    const int version = GetVersion();
    return std::to_string((version >> 16) & 0xF) + "." + std::to_string(version & 0xF);
}
