#pragma once

#include <atomic>
#include <string>

namespace Ostrelink::Native::ConfigHandler {

// Facade of the Configs library: every setting lives there and is asked for by exported name.
// Each call looks its symbol up again; only the library handle is kept.
class ConfigHandler {
public:
    ConfigHandler() = delete;

    static int SetConfigSource(const std::string& source);
    static std::string GetConfigSource();
    static std::string GetWorkingDirectory();
    static int SetWorkingDirectory(const std::string& path);
    // OSTRELINK_LOGGING_LEVEL first ("off" 0, "runtimeinfo" 1, "all" 2), then the library; 1 by
    // default.
    static int GetLoggingLevel();
    // The level that OSTRELINK_LOGGING_LEVEL alone gives, or -1 when it is unset or unknown.
    static int loggingLevelFromEnvironment();
    static std::string GetRuntimeName(const std::string& runtime, const std::string& name);
    static std::string GetChannelType(const std::string& runtime, const std::string& name);
    static std::string GetChannelHost(const std::string& runtime, const std::string& name);
    static int GetChannelPort(const std::string& runtime, const std::string& name);
    static std::string GetChannelRuntimePath(const std::string& runtime, const std::string& name);
    static bool ProxyExists();
    static std::string GetProxyHost();
    static int GetProxyPort();
    static std::string GetProxyUsername();
    static std::string GetProxyPassword();
    static std::string GetProxyDomain();

private:
    static void initializeConfigsLibrary();

    // Threads may race on the first load; both reach the one handle the loader hands out.
    static std::atomic<void*> configsLibraryInstance;
};

}  // namespace Ostrelink::Native::ConfigHandler
