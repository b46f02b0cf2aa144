#include "RuntimeLibrary.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>

#include <ostrelink/RuntimeFactories.h>

namespace fs = std::filesystem;

RuntimeLibrary::RuntimeLibrary(const std::string& path)
    : m_path(fs::absolute(path).lexically_normal().string()),
      m_handle(dlopen(m_path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (m_handle == nullptr) {
        const char* reason = dlerror();
        throw std::runtime_error("cannot open the runtime library " + m_path + ": " +
                                 (reason != nullptr ? reason : "unknown reason"));
    }
}

std::string RuntimeLibrary::installedPath() {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) {
        throw std::runtime_error("cannot find this program's own path in /proc/self/exe: " +
                                 error.message() + "; give the library with --library");
    }
    return (self.parent_path() / OSTRELINK_HOST_LIBRARY).lexically_normal().string();
}

Ostrelink::Native::Interfaces::IReceiver* RuntimeLibrary::createReceiver() const {
    auto create = reinterpret_cast<Ostrelink::Native::Interfaces::CreateReceiverFn>(
        dlsym(m_handle, "CreateReceiver"));
    if (create == nullptr) {
        throw std::runtime_error("the runtime library " + m_path +
                                 " does not export CreateReceiver");
    }
    return create(Ostrelink::Native::Definitions::RuntimeOperationMode::Called);
}
