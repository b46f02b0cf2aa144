#include <sstream>
#include <string>
#include <vector>

#include "launcher/JvmLauncher.h"
#include "launcher/ThreadJniEnv.h"
#include "launcher/jni/LocalRef.h"
#include "launcher/jni/UtfChars.h"

namespace Jni = Ostrelink::Native::Jni;

namespace {
// Marks the thread's record while it queries Java for its runtime info. A failure of the query is
// translated through HandleException, which asks for the runtime info again: that inner ask gets
// the empty managed text, so a Java method that always fails costs one pass, not an endless
// descent.
class QueryScope {
public:
    QueryScope() : m_querying(ThreadRecord::ofThisThread().queryingManagedRuntime) {
        m_querying = true;
    }
    ~QueryScope() { m_querying = false; }
    QueryScope(const QueryScope&) = delete;
    QueryScope& operator=(const QueryScope&) = delete;

private:
    bool& m_querying;
};
}  // namespace

std::string JvmLauncher::GetRuntimeInfo() {
    std::vector<std::string> libraries;
    {
        std::lock_guard<std::mutex> lock(m_librariesMutex);
        libraries = m_librariesToLoad;
    }
    std::ostringstream text;
    if (!libraries.empty()) {
        text << "Loaded custom libraries:\n";
        for (const auto& library : libraries) {
            text << library << "\n";
        }
    }
    text << "\n";
    text << GetRuntimeInfoFromManagedRuntime();
    text << GetRuntimeInfoFromNativeLevel();
    return text.str();
}

// Java is asked only once a start has finished (m_jvmInitialized, which publishes the class and
// the method): a failure in the middle of a start, on this or another thread, meets fields that
// are half set, and gets the empty managed text.
std::string JvmLauncher::GetRuntimeInfoFromManagedRuntime() {
    if (ThreadRecord::ofThisThread().queryingManagedRuntime || jvmLeftInParent.load() ||
        !m_jvmInitialized.load() || m_JvmEnv == nullptr || m_jvm == nullptr ||
        m_receiverClass == nullptr || m_getRuntimeInfoMethod == nullptr) {
        return {};
    }
    try {
        const QueryScope scope;
        const ThreadJniEnv threadEnv(m_jvm);
        JNIEnv* env = threadEnv.m_jniEnv;
        Jni::LocalRef<jstring> result(env, static_cast<jstring>(env->CallStaticObjectMethod(
                                               m_receiverClass, m_getRuntimeInfoMethod)));
        CheckAndHandleJvmException(env, Failure::JavaExceptionFromRuntimeInfo, true);
        if (result.get() == nullptr) {
            return {};
        }
        Jni::UtfChars characters(env, result.get());
        if (characters.get() == nullptr) {
            ClearPendingJavaException(env);
            result.reset();
            RaiseLauncherException(Failure::UtfCharsFailed);
        }
        CheckAndHandleJvmException(env, Failure::JavaExceptionAfterUtfChars, true);
        std::string managed = characters.get();
        characters.reset();
        CheckAndHandleJvmException(env, Failure::JavaExceptionAfterReleaseUtfChars, true);
        return managed;
    } catch (...) {
        return {};
    }
}

std::string JvmLauncher::GetRuntimeInfoFromNativeLevel() {
    std::string libraryPath;
    {
        const std::lock_guard<std::mutex> lock(m_librariesMutex);
        libraryPath = m_jvmLibraryPath;
    }
    std::ostringstream text;
    text << "JVM Native Launcher Runtime Info: " << std::endl
         << "JVM shared library search path: " << libraryPath;
    return text.str();
}
