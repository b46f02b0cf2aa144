#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "launcher/JvmLauncher.h"
#include "launcher/JvmSearch.h"
#include "support/ConfigHandler.h"

using Ostrelink::Native::ConfigHandler::ConfigHandler;

// The order of the sources is searchJvm's (launcher/JvmSearch.h); this gives it its inputs.
void JvmLauncher::SetJvmRuntimePath() {
    std::string configured;
    try {
        configured = ConfigHandler::GetChannelRuntimePath("jvm", "default");
    } catch (const std::exception&) {
        // A missing configuration library is no failure here: the variables still count.
        configured.clear();
    }
    const auto search = Ostrelink::Native::Launcher::searchJvm(
        configured, std::getenv("OSTRELINK_JVM_RUNTIME_PATH"), std::getenv("JAVA_HOME"));
    for (const auto& line : search.lines) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    }
    m_jvmRuntimePath = search.path;
    if (search.failure) {
        RaiseLauncherException(*search.failure);
    }
}

// The handle stays open for the life of the process: the JVM lives in that library.
void JvmLauncher::LoadJvmSharedLibraryAndExportedFunctions() {
    for (const auto& candidate : Ostrelink::Native::Launcher::jvmCandidates(m_jvmRuntimePath)) {
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
