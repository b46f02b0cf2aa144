#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>

// A runtime library of the staged tree, opened by full path the way a sibling library opens it.
class HostLibrary {
public:
    explicit HostLibrary(const std::string& path, int flags = RTLD_NOW | RTLD_LOCAL);
    ~HostLibrary();
    HostLibrary(const HostLibrary&) = delete;
    HostLibrary& operator=(const HostLibrary&) = delete;

    // The staged file of a library by its NAME, e.g. "OstrelinkJvmRuntimeNative".
    static std::string stagedPath(const std::string& name);
    // This library: libOstrelinkJvmRuntimeNative of the staged tree.
    static HostLibrary& jvmRuntime();

    void* handle() const { return m_handle; }
    void* find(const char* name) const;

    template <typename Function>
    Function get(const char* name) const {
        void* symbol = find(name);
        if (symbol == nullptr) {
            throw std::runtime_error(std::string("missing export: ") + name);
        }
        return reinterpret_cast<Function>(symbol);
    }

private:
    void* m_handle = nullptr;
};
