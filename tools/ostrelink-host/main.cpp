// ostrelink-host: runs commands in a JVM through the installed runtime library. See --help.
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "DefaultJdk.h"
#include "HostCommandLine.h"
#include "HostSession.h"
#include "RuntimeLibrary.h"

namespace {

constexpr unsigned char cppRuntime = 8;
constexpr unsigned char jvmRuntime = 2;

// The library finds the JVM through JAVA_HOME or OSTRELINK_JVM_RUNTIME_PATH only. A user who
// set neither means the machine's java, so find it here, before the library looks.
void useDefaultJdkIfNoneSet() {
    if (std::getenv("JAVA_HOME") != nullptr ||
        std::getenv("OSTRELINK_JVM_RUNTIME_PATH") != nullptr) {
        return;
    }
    const char* searchPath = std::getenv("PATH");
    const auto jdk = DefaultJdk::find(searchPath != nullptr ? searchPath : "");
    if (!jdk) {
        return;
    }
    setenv("JAVA_HOME", jdk->home.c_str(), 1);
    std::cerr << "ostrelink-host: JAVA_HOME is not set; using " << jdk->home << ", the JDK of "
              << jdk->launcher << " on PATH" << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    HostCommandLine line;
    try {
        line = HostCommandLine::parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError& error) {
        std::cerr << "ostrelink-host: " << error.what() << "\nTry 'ostrelink-host --help'."
                  << std::endl;
        return 2;
    }
    if (line.help()) {
        std::cout << HostCommandLine::helpText();
        return 0;
    }
    useDefaultJdkIfNoneSet();
    try {
        const RuntimeLibrary library(line.libraryPath().empty() ? RuntimeLibrary::installedPath()
                                                                : line.libraryPath());
        auto* receiver = library.createReceiver();
        receiver->Initialize(cppRuntime, jvmRuntime, 0);
        HostSession session(receiver);
        for (const HostStep& step : line.steps()) {
            session.run(step, std::cout);
        }
    } catch (const std::exception& error) {
        std::cout.flush();
        std::cerr << "ostrelink-host: " << error.what() << std::endl;
        return 1;
    }
    return 0;
}
