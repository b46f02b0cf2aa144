#include "support/ConfigHandler.h"

#include <dlfcn.h>

#include <cctype>
#include <cstdlib>
#include <exception>

#include "support/LibrariesFinder.h"
#include "support/OstrelinkNativeException.h"

namespace Ostrelink::Native::ConfigHandler {

std::atomic<void*> ConfigHandler::configsLibraryInstance{nullptr};

namespace {

// What an operation does when the library fails with a std::exception.
enum class OnFailure { Wrap, Default };

std::string lowered(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// The common shape of every operation: look the export up by name on each call, call it, and
// either wrap a failure into a new exception or answer a default.
template <typename Result, typename... Args>
Result callExport(const std::atomic<void*>& library, const char* name, OnFailure onFailure,
                  Result fallback, Args... args) {
    try {
        void* symbol = dlsym(library.load(std::memory_order_acquire), name);
        if (symbol == nullptr) {
            throw OstrelinkNativeException(
                std::string(name) + " function not found in Utils library", "Unknown");
        }
        return reinterpret_cast<Result (*)(Args...)>(symbol)(args...);
    } catch (const std::exception& exception) {
        if (onFailure == OnFailure::Wrap) {
            throw OstrelinkNativeException(exception.what(), "Unknown");
        }
        return fallback;
    }
}

}  // namespace

void ConfigHandler::initializeConfigsLibrary() {
    if (configsLibraryInstance.load(std::memory_order_acquire) == nullptr) {
        configsLibraryInstance.store(LibrariesFinder::LibrariesFinder::loadConfigsLibrary(true),
                                     std::memory_order_release);
    }
}

int ConfigHandler::SetConfigSource(const std::string& source) {
    initializeConfigsLibrary();
    return callExport<int, const char*>(configsLibraryInstance, "SetConfigSource", OnFailure::Wrap,
                                        0, source.c_str());
}

std::string ConfigHandler::GetConfigSource() {
    initializeConfigsLibrary();
    return callExport<std::string>(configsLibraryInstance, "GetConfigSource", OnFailure::Wrap, {});
}

std::string ConfigHandler::GetWorkingDirectory() {
    initializeConfigsLibrary();
    return callExport<std::string>(configsLibraryInstance, "GetWorkingDirectory", OnFailure::Wrap,
                                   {});
}

int ConfigHandler::SetWorkingDirectory(const std::string& path) {
    initializeConfigsLibrary();
    return callExport<int, const char*>(configsLibraryInstance, "SetWorkingDirectory",
                                        OnFailure::Wrap, 0, path.c_str());
}

int ConfigHandler::loggingLevelFromEnvironment() {
    const char* variable = std::getenv("OSTRELINK_LOGGING_LEVEL");
    if (variable == nullptr) {
        return -1;
    }
    const std::string level = lowered(variable);
    if (level == "off") {
        return 0;
    }
    if (level == "runtimeinfo") {
        return 1;
    }
    if (level == "all") {
        return 2;
    }
    return -1;
}

int ConfigHandler::GetLoggingLevel() {
    if (const int fromEnvironment = loggingLevelFromEnvironment(); fromEnvironment >= 0) {
        return fromEnvironment;
    }
    initializeConfigsLibrary();
    // An empty answer stands for a failure: both mean the default level.
    const std::string level = lowered(callExport<std::string>(
        configsLibraryInstance, "GetLoggingLevel", OnFailure::Default, std::string()));
    if (level == "off") {
        return 0;
    }
    if (level == "all") {
        return 2;
    }
    return 1;
}

std::string ConfigHandler::GetRuntimeName(const std::string& runtime, const std::string& name) {
    initializeConfigsLibrary();
    return callExport<std::string, const char*, const char*>(configsLibraryInstance,
                                                             "GetRuntimeName", OnFailure::Default,
                                                             {}, runtime.c_str(), name.c_str());
}

std::string ConfigHandler::GetChannelType(const std::string& runtime, const std::string& name) {
    initializeConfigsLibrary();
    return callExport<std::string, const char*, const char*>(configsLibraryInstance,
                                                             "GetChannelType", OnFailure::Default,
                                                             {}, runtime.c_str(), name.c_str());
}

std::string ConfigHandler::GetChannelHost(const std::string& runtime, const std::string& name) {
    initializeConfigsLibrary();
    return callExport<std::string, const char*, const char*>(configsLibraryInstance,
                                                             "GetChannelHost", OnFailure::Default,
                                                             {}, runtime.c_str(), name.c_str());
}

int ConfigHandler::GetChannelPort(const std::string& runtime, const std::string& name) {
    initializeConfigsLibrary();
    return callExport<int, const char*, const char*>(configsLibraryInstance, "GetChannelPort",
                                                     OnFailure::Default, 0, runtime.c_str(),
                                                     name.c_str());
}

std::string ConfigHandler::GetChannelRuntimePath(const std::string& runtime,
                                                 const std::string& name) {
    initializeConfigsLibrary();
    return callExport<std::string, const char*, const char*>(
        configsLibraryInstance, "GetChannelRuntimePath", OnFailure::Default, {}, runtime.c_str(),
        name.c_str());
}

bool ConfigHandler::ProxyExists() {
    initializeConfigsLibrary();
    return callExport<bool>(configsLibraryInstance, "ProxyExists", OnFailure::Default, false);
}

std::string ConfigHandler::GetProxyHost() {
    initializeConfigsLibrary();
    return callExport<std::string>(configsLibraryInstance, "GetProxyHost", OnFailure::Default, {});
}

int ConfigHandler::GetProxyPort() {
    initializeConfigsLibrary();
    return callExport<int>(configsLibraryInstance, "GetProxyPort", OnFailure::Default, 0);
}

std::string ConfigHandler::GetProxyUsername() {
    initializeConfigsLibrary();
    return callExport<std::string>(configsLibraryInstance, "GetProxyUsername", OnFailure::Default,
                                   {});
}

std::string ConfigHandler::GetProxyPassword() {
    initializeConfigsLibrary();
    return callExport<std::string>(configsLibraryInstance, "GetProxyPassword", OnFailure::Default,
                                   {});
}

std::string ConfigHandler::GetProxyDomain() {
    initializeConfigsLibrary();
    return callExport<std::string>(configsLibraryInstance, "GetProxyDomain", OnFailure::Default,
                                   {});
}

}  // namespace Ostrelink::Native::ConfigHandler
