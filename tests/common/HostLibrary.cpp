#include "common/HostLibrary.h"

HostLibrary::HostLibrary(const std::string& path, int flags)
    : m_handle(dlopen(path.c_str(), flags)) {
    if (m_handle == nullptr) {
        const char* error = dlerror();
        throw std::runtime_error("cannot open " + path + ": " + (error != nullptr ? error : ""));
    }
}

// Runtime libraries keep process-wide state and threads may still be inside them when a test
// ends, so the handle stays open for the life of the process.
HostLibrary::~HostLibrary() = default;

std::string HostLibrary::stagedPath(const std::string& name) {
    return std::string(OSTRELINK_NATIVE_DIR) + "lib" + name + ".so";
}

HostLibrary& HostLibrary::jvmRuntime() {
    static HostLibrary library(stagedPath("OstrelinkJvmRuntimeNative"));
    return library;
}

void* HostLibrary::find(const char* name) const {
    return dlsym(m_handle, name);
}
