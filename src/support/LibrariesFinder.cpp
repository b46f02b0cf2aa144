#include "support/LibrariesFinder.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "support/Failures.h"
#include "support/OstrelinkNativeException.h"
#include "support/Platform.h"
#include "support/RuntimeNameHandler.h"

// A code address inside this library, for dladdr.
extern "C" void emptyFunctionInNativeLib() {}

namespace Ostrelink::Native::LibrariesFinder {

namespace {

// pathToDir is taken at load; a failure there must not end the host, so it leaves the text empty
// and the loaders then fail by path. Its exception must not report through the facade, whose
// loader reads the very pathToDir being built.
std::string thisLibraryPathOrEmpty() {
    const OstrelinkNativeException::LoadTimeScope loadTime;
    try {
        return LibrariesFinder::getThisLibraryPath();
    } catch (...) {
        return {};
    }
}

}  // namespace

const std::string LibrariesFinder::nativeDirectoryRelativePath = OSTRELINK_NATIVE_DIRECTORY;
const std::string LibrariesFinder::pathToDir = thisLibraryPathOrEmpty();
std::atomic<void*> LibrariesFinder::utilsLibraryInstance{nullptr};
std::atomic<void*> LibrariesFinder::configsLibraryInstance{nullptr};
std::atomic<void*> LibrariesFinder::tcpClientLibraryInstance{nullptr};
std::atomic<void*> LibrariesFinder::tcpTlsClientLibraryInstance{nullptr};

std::string LibrariesFinder::getThisLibraryPath() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&emptyFunctionInNativeLib), &info) == 0) {
        const char* error = dlerror();
        Failures::raise(Failures::Failure::NoOwnPath, error != nullptr ? error : "");
    }
    std::string file = info.dli_fname != nullptr ? info.dli_fname : "";
    const auto slash = file.find_last_of('/');
    if (slash != std::string::npos) {
        file.erase(slash);
    }
    return file + "/";
}

std::string LibrariesFinder::getCurrentWorkingDirectory() {
    std::string path = std::filesystem::current_path().generic_string();
    std::replace(path.begin(), path.end(), '\\', '/');
    return path + "/";
}

std::string LibrariesFinder::getBinariesRootPath() {
    return getThisLibraryPath() + "../../../../";
}

std::string LibrariesFinder::getRuntimeLibraryPath(int runtime) {
    return getThisLibraryPath() +
           RuntimeNameHandler::RuntimeNameHandler::getRuntimeLibraryName(runtime);
}

void* LibrariesFinder::open(const std::string& path, int flags, bool throwOnError,
                            bool printError) {
    std::string message;
    struct stat fileStatus {};
    if (stat(path.c_str(), &fileStatus) != 0) {
        message = Failures::text(Failures::Failure::CannotLoadLibrary,
                                 path + ". \nError: File not found.");
    } else {
        void* handle = dlopen(path.c_str(), flags);
        if (handle != nullptr) {
            return handle;
        }
        const char* error = dlerror();
        message = Failures::text(Failures::Failure::CannotLoadLibrary,
                                 path + ". \nError: " + (error != nullptr ? error : ""));
    }
    if (throwOnError) {
        throw OstrelinkNativeException(message, "Unknown");
    }
    if (printError) {
        std::cerr << message << std::endl;
    }
    return nullptr;
}

void* LibrariesFinder::loadLibrary(std::string path, bool throwOnError, bool printError) {
    return open(path, RTLD_NOW | RTLD_LOCAL, throwOnError, printError);
}

void* LibrariesFinder::loadLibraryDeepBind(std::string path, bool throwOnError, bool printError) {
#if defined(RTLD_DEEPBIND) && !defined(__SANITIZE_ADDRESS__)
    // Sanitizer runtimes refuse RTLD_DEEPBIND, so sanitized builds open it the plain way.
    return open(path, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND, throwOnError, printError);
#else
    return open(path, RTLD_NOW | RTLD_LOCAL, throwOnError, printError);
#endif
}

void* LibrariesFinder::loadCached(std::atomic<void*>& cache, const char* fileName,
                                  bool throwOnError, bool printError) {
    if (void* handle = cache.load(std::memory_order_acquire)) {
        return handle;
    }
    void* handle = loadLibrary(pathToDir + fileName, throwOnError, printError);
    cache.store(handle, std::memory_order_release);
    return handle;
}

void* LibrariesFinder::loadUtilsLibrary(bool throwOnError) {
    return loadCached(utilsLibraryInstance, OSTRELINK_LIBRARY_FILE("Utils"), throwOnError, false);
}

void* LibrariesFinder::loadConfigsLibrary(bool throwOnError) {
    return loadCached(configsLibraryInstance, OSTRELINK_LIBRARY_FILE("Configs"), throwOnError,
                      false);
}

void* LibrariesFinder::loadTcpClientLibrary(bool throwOnError) {
    return loadCached(tcpClientLibraryInstance, OSTRELINK_LIBRARY_FILE("OstrelinkTcpClient"),
                      throwOnError, true);
}

void* LibrariesFinder::loadTcpTlsClientLibrary(bool throwOnError) {
    return loadCached(tcpTlsClientLibraryInstance, OSTRELINK_LIBRARY_FILE("OstrelinkTcpTlsClient"),
                      throwOnError, true);
}

}  // namespace Ostrelink::Native::LibrariesFinder
