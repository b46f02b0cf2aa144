#pragma once

#include <string>

#include <ostrelink/IReceiver.h>

// The runtime library, opened by full path, and its receiver. The handle is never closed: once a
// command has started the JVM, the JVM's threads run code of this library until the process
// ends, and unloading it under them would crash the process.
class RuntimeLibrary {
public:
    // Throws std::runtime_error naming the path when it can't be opened or lacks CreateReceiver.
    explicit RuntimeLibrary(const std::string& path);
    RuntimeLibrary(const RuntimeLibrary&) = delete;
    RuntimeLibrary& operator=(const RuntimeLibrary&) = delete;

    // The library of the installation this program belongs to: OSTRELINK_HOST_LIBRARY relative to
    // the directory of the running executable.
    static std::string installedPath();

    // Absolute, as it was opened.
    const std::string& path() const { return m_path; }

    // CreateReceiver(Called). The receiver belongs to the library and lives as long as the process.
    Ostrelink::Native::Interfaces::IReceiver* createReceiver() const;

private:
    std::string m_path;
    void* m_handle = nullptr;
};
