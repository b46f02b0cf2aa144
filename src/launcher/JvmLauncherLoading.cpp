#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "launcher/JvmLauncher.h"
#include "support/ConfigHandler.h"
#include "support/Platform.h"

using Ostrelink::Native::ConfigHandler::ConfigHandler;

// First source that yields a path wins: the configuration, then OSTRELINK_JVM_RUNTIME_PATH, then
// JAVA_HOME. The path may name a JVM root directory or the library file itself.
void JvmLauncher::SetJvmRuntimePath() {
    try {
        m_jvmRuntimePath = ConfigHandler::GetChannelRuntimePath("jvm", "default");
    } catch (const std::exception&) {
        // A missing configuration library is no failure here: the variables still count.
        m_jvmRuntimePath.clear();
    }
    if (!m_jvmRuntimePath.empty()) {
        std::printf("Looking for JVM runtime in path: %s\n", m_jvmRuntimePath.c_str());
        std::fflush(stdout);
        return;
    }
    if (const char* runtimePath = std::getenv("OSTRELINK_JVM_RUNTIME_PATH")) {
        try {
            m_jvmRuntimePath = runtimePath;
            std::printf(
                "Looking for JVM runtime in OSTRELINK_JVM_RUNTIME_PATH environment variable: %s\n",
                runtimePath);
            std::fflush(stdout);
        } catch (const std::exception&) {
            m_jvmRuntimePath.clear();
        }
    }
    if (!m_jvmRuntimePath.empty()) {
        return;
    }
    if (const char* javaHome = std::getenv("JAVA_HOME")) {
        m_jvmRuntimePath = javaHome;
        return;
    }
    RaiseLauncherException(Failure::NoJvmSource);
}

// The handle stays open for the life of the process: the JVM lives in that library.
void JvmLauncher::LoadJvmSharedLibraryAndExportedFunctions() {
    const std::string candidates[] = {m_jvmRuntimePath,
                                      m_jvmRuntimePath + OSTRELINK_JVM_CANDIDATE_JRE,
                                      m_jvmRuntimePath + OSTRELINK_JVM_CANDIDATE_JDK};
    for (const auto& candidate : candidates) {
        {
            // The runtime info reads it on any thread.
            const std::lock_guard<std::mutex> lock(m_librariesMutex);
            m_jvmLibraryPath = candidate;
        }
        m_jvmLibraryHandle = dlopen(candidate.c_str(), RTLD_LAZY);
        if (m_jvmLibraryHandle != nullptr) {
            return;
        }
    }
    if (dlerror() != nullptr) {
        RaiseLauncherException(Failure::NoJvmLibrary);
    }
}

namespace {
// dlsym on a null handle would search the whole process (RTLD_DEFAULT on this loader), so a
// library that never opened binds nothing.
void* findInLibrary(void* library, const char* name) {
    return library != nullptr ? dlsym(library, name) : nullptr;
}
}  // namespace

void JvmLauncher::GetFunctionsPointers() {
    m_getCreatedJavaVMs = reinterpret_cast<decltype(m_getCreatedJavaVMs)>(
        findInLibrary(m_jvmLibraryHandle, "JNI_GetCreatedJavaVMs"));
    m_createJavaVM = reinterpret_cast<decltype(m_createJavaVM)>(
        findInLibrary(m_jvmLibraryHandle, "JNI_CreateJavaVM"));
    if (m_getCreatedJavaVMs == nullptr || m_createJavaVM == nullptr) {
        RaiseLauncherException(Failure::NoInvocationFunctions);
    }
}
