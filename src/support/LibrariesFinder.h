#pragma once

#include <atomic>
#include <string>

namespace Ostrelink::Native::LibrariesFinder {

// Finds the installation from where this library lies, and opens siblings by full path only.
// No search list: one place (this library's directory), one attempt. Handles are never closed.
class LibrariesFinder {
public:
    LibrariesFinder() = delete;

    // Directory of this library's file, with a trailing "/". Asks the loader on every call.
    static std::string getThisLibraryPath();
    // The process's working directory, generic form, with a trailing "/". Part of the finder's
    // documented surface; nothing in this library calls it.
    static std::string getCurrentWorkingDirectory();
    // getThisLibraryPath() + "../../../../": the installation root, not simplified.
    static std::string getBinariesRootPath();
    // getThisLibraryPath() + the library file name of that runtime.
    static std::string getRuntimeLibraryPath(int runtime);

    // Opens path with RTLD_NOW | RTLD_LOCAL. On failure: throws when throwOnError, otherwise
    // prints the message to stderr when printError, and returns null.
    static void* loadLibrary(std::string path, bool throwOnError, bool printError);
    // Same contract; also asks the loader to prefer the library's own symbols where it can.
    // Documented surface with no caller here.
    static void* loadLibraryDeepBind(std::string path, bool throwOnError, bool printError);

    // Cached loads from pathToDir. A failed load is not remembered: the next call tries again.
    static void* loadUtilsLibrary(bool throwOnError);
    static void* loadConfigsLibrary(bool throwOnError);
    static void* loadTcpClientLibrary(bool throwOnError);
    static void* loadTcpTlsClientLibrary(bool throwOnError);

    // "/Binaries/Native/<platform>/<arch>/". Documented surface that nothing reads: the loaders
    // go by pathToDir.
    static const std::string nativeDirectoryRelativePath;
    static const std::string pathToDir;

private:
    static void* loadCached(std::atomic<void*>& cache, const char* fileName, bool throwOnError,
                            bool printError);
    static void* open(const std::string& path, int flags, bool throwOnError, bool printError);

    // Atomic, as several threads may load the same library at once; dlopen hands them the same
    // handle, so the later store is harmless. No lock: the exception type's reporting re-enters.
    static std::atomic<void*> utilsLibraryInstance;
    static std::atomic<void*> configsLibraryInstance;
    static std::atomic<void*> tcpClientLibraryInstance;
    static std::atomic<void*> tcpTlsClientLibraryInstance;
};

}  // namespace Ostrelink::Native::LibrariesFinder
