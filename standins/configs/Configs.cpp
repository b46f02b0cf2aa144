// Stand-in of the Configs library. Settings come from a text file of "key = value" lines named
// by SetConfigSource; without one every setting has its default. See README.md.

#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>

#define CONFIGS_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct Settings {
    std::string source;
    std::map<std::string, std::string> values;
    std::string workingDirectory;  // set by SetWorkingDirectory; wins over the file
};

std::mutex settingsMutex;
Settings settings;

std::string trimmed(const std::string& text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin])) != 0) {
        ++begin;
    }
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1])) != 0) {
        --end;
    }
    return text.substr(begin, end - begin);
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

bool isPort(const std::string& text) {
    if (text.empty() || text.size() > 5) {
        return false;
    }
    for (char c : text) {
        if (std::isdigit(static_cast<unsigned char>(c)) == 0) {
            return false;
        }
    }
    return std::stoi(text) <= 65535;
}

std::map<std::string, std::string> parse(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        throw std::runtime_error("Configs: configuration source not found: " + path);
    }
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("Configs: cannot read configuration source: " + path);
    }
    std::map<std::string, std::string> values;
    std::string line;
    int number = 0;
    while (std::getline(file, line)) {
        ++number;
        const std::string content = trimmed(line);
        if (content.empty() || content[0] == '#') {
            continue;
        }
        const std::size_t equals = content.find('=');
        const std::string key =
            equals == std::string::npos ? "" : trimmed(content.substr(0, equals));
        if (key.empty()) {
            throw std::runtime_error("Configs: malformed line " + std::to_string(number) + " in " +
                                     path + ": expected key = value");
        }
        const std::string value = trimmed(content.substr(equals + 1));
        if ((key == "proxy.port" || endsWith(key, ".channel.port")) && !isPort(value)) {
            throw std::runtime_error("Configs: malformed line " + std::to_string(number) + " in " +
                                     path + ": " + key + " is not a port number");
        }
        values[key] = value;
    }
    if (file.bad()) {
        throw std::runtime_error("Configs: cannot read configuration source: " + path);
    }
    return values;
}

std::string lookup(const std::string& key) {
    const std::lock_guard<std::mutex> lock(settingsMutex);
    const auto found = settings.values.find(key);
    return found == settings.values.end() ? std::string() : found->second;
}

int lookupPort(const std::string& key) {
    const std::string value = lookup(key);
    return value.empty() ? 0 : std::stoi(value);
}

std::string channelKey(const char* runtime, const char* name, const char* field) {
    return std::string(runtime != nullptr ? runtime : "") + "." + (name != nullptr ? name : "") +
           "." + field;
}

}  // namespace

CONFIGS_EXPORT int SetConfigSource(const char* source) {
    if (source == nullptr) {
        throw std::runtime_error("Configs: configuration source is null");
    }
    // Parsed into a table of its own and swapped in whole: a bad source changes nothing.
    std::map<std::string, std::string> values = parse(source);
    const std::lock_guard<std::mutex> lock(settingsMutex);
    settings.values.swap(values);
    settings.source = source;
    return 0;
}

CONFIGS_EXPORT std::string GetConfigSource() {
    const std::lock_guard<std::mutex> lock(settingsMutex);
    return settings.source;
}

CONFIGS_EXPORT std::string GetWorkingDirectory() {
    {
        const std::lock_guard<std::mutex> lock(settingsMutex);
        if (!settings.workingDirectory.empty()) {
            return settings.workingDirectory;
        }
        const auto found = settings.values.find("workingDirectory");
        if (found != settings.values.end() && !found->second.empty()) {
            return found->second;
        }
    }
    return std::filesystem::current_path().generic_string();
}

CONFIGS_EXPORT int SetWorkingDirectory(const char* path) {
    if (path == nullptr || *path == '\0') {
        throw std::runtime_error("Configs: working directory path is empty");
    }
    const std::lock_guard<std::mutex> lock(settingsMutex);
    settings.workingDirectory = path;
    return 0;
}

CONFIGS_EXPORT std::string GetLoggingLevel() {
    const std::lock_guard<std::mutex> lock(settingsMutex);
    const auto found = settings.values.find("logging.level");
    return found == settings.values.end() ? std::string("runtimeinfo") : found->second;
}

CONFIGS_EXPORT std::string GetRuntimeName(const char* runtime, const char* name) {
    return lookup(channelKey(runtime, name, "runtimeName"));
}

CONFIGS_EXPORT std::string GetChannelType(const char* runtime, const char* name) {
    return lookup(channelKey(runtime, name, "channel.type"));
}

CONFIGS_EXPORT std::string GetChannelHost(const char* runtime, const char* name) {
    return lookup(channelKey(runtime, name, "channel.host"));
}

CONFIGS_EXPORT int GetChannelPort(const char* runtime, const char* name) {
    return lookupPort(channelKey(runtime, name, "channel.port"));
}

CONFIGS_EXPORT std::string GetChannelRuntimePath(const char* runtime, const char* name) {
    return lookup(channelKey(runtime, name, "runtimePath"));
}

CONFIGS_EXPORT bool ProxyExists() {
    return !lookup("proxy.host").empty();
}

CONFIGS_EXPORT std::string GetProxyHost() {
    return lookup("proxy.host");
}

CONFIGS_EXPORT int GetProxyPort() {
    return lookupPort("proxy.port");
}

CONFIGS_EXPORT std::string GetProxyUsername() {
    return lookup("proxy.username");
}

CONFIGS_EXPORT std::string GetProxyPassword() {
    return lookup("proxy.password");
}

CONFIGS_EXPORT std::string GetProxyDomain() {
    return lookup("proxy.domain");
}
