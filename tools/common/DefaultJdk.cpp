#include "DefaultJdk.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace {

bool holdsValue(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

std::optional<DefaultJdk::Found> homeOf(const fs::path& launcher) {
    std::error_code error;
    if (!fs::is_regular_file(launcher, error) || access(launcher.c_str(), X_OK) != 0) {
        return std::nullopt;
    }
    const fs::path real = fs::canonical(launcher, error);
    if (error || real.parent_path().filename() != "bin") {
        return std::nullopt;
    }
    fs::path home = real.parent_path().parent_path();
    // The java of an old JDK's bundled JRE lives in <jdk>/jre/bin; the JDK is the home then.
    if (home.filename() == "jre") {
        home = home.parent_path();
    }
    return DefaultJdk::Found{home.string(), launcher.string()};
}

}  // namespace

std::optional<DefaultJdk::Found> DefaultJdk::find(const std::string& searchPath) {
    for (const char* name : {"java", "javac"}) {
        std::istringstream directories(searchPath);
        std::string directory;
        while (std::getline(directories, directory, ':')) {
            if (auto found = homeOf(fs::path(directory.empty() ? "." : directory) / name)) {
                return found;
            }
        }
    }
    return std::nullopt;
}

bool DefaultJdk::useIfNoneSet(const char* tool) {
    if (holdsValue("JAVA_HOME") || holdsValue("OSTRELINK_JVM_RUNTIME_PATH")) {
        return false;
    }
    const char* searchPath = std::getenv("PATH");
    const auto jdk = find(searchPath != nullptr ? searchPath : "");
    if (!jdk) {
        unsetenv("JAVA_HOME");
        return false;
    }
    setenv("JAVA_HOME", jdk->home.c_str(), 1);
    std::cerr << tool << ": JAVA_HOME is not set; using " << jdk->home << ", the JDK of "
              << jdk->launcher << " on PATH" << std::endl;
    return true;
}
