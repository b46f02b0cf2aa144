// ostrelink-stress: see StressOptions::usage().

#include <dlfcn.h>
#include <jni.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include <ostrelink/Runtime.h>
#include <ostrelink/RuntimeFactories.h>

#include "DefaultJdk.h"
#include "ServerChild.h"
#include "StressOptions.h"
#include "StressWorkload.h"
#include "ToolVersion.h"

using namespace Ostrelink::Tools::Stress;
using Ostrelink::Native::Definitions::Runtime;
using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::CreateTransmitterFn;

namespace {

constexpr double mebibyte = 1024.0 * 1024.0;
// The long phase may grow resident memory by twice the short phase's growth and this much.
constexpr double allowedExtraGrowthMiB = 8.0;

std::string executableDirectory() {
    char path[PATH_MAX] = {};
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) {
        throw std::runtime_error("cannot find this executable through /proc/self/exe");
    }
    const std::string self(path, static_cast<std::size_t>(length));
    return self.substr(0, self.rfind('/') + 1);
}

double residentMiB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / mebibyte;
}

// The JVMs of this process, asked of the JVM library that the runtime library loaded.
int jvmsInProcess() {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        const auto slash = line.find('/');
        if (slash == std::string::npos || line.find("/libjvm.so") == std::string::npos) {
            continue;
        }
        void* jvm = dlopen(line.substr(slash).c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (jvm == nullptr) {
            return -1;
        }
        using GetCreatedFn = jint (*)(JavaVM**, jsize, jsize*);
        const auto getCreated = reinterpret_cast<GetCreatedFn>(dlsym(jvm, "JNI_GetCreatedJavaVMs"));
        jsize count = -1;
        if (getCreated == nullptr || getCreated(nullptr, 0, &count) != JNI_OK) {
            return -1;
        }
        return count;
    }
    return 0;
}

void* openLibrary(const std::string& path) {
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* error = dlerror();
        throw std::runtime_error("cannot open " + path + ": " + (error != nullptr ? error : ""));
    }
    return library;
}

template <typename Function>
Function exported(void* library, const char* name) {
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) {
        throw std::runtime_error(std::string("the runtime library has no ") + name);
    }
    return reinterpret_cast<Function>(symbol);
}

// Two jars for load-library commands, and nothing else; removed when the run ends.
class JarDirectory {
public:
    JarDirectory() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "ostrelink-stress-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a temporary directory");
        }
        m_path = pattern;
        for (const char* name : {"first.jar", "second.jar"}) {
            std::ofstream(m_path / name) << "PK";
            m_jars.push_back((m_path / name).string());
        }
    }
    ~JarDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    JarDirectory(const JarDirectory&) = delete;
    JarDirectory& operator=(const JarDirectory&) = delete;
    const std::vector<std::string>& jars() const { return m_jars; }
    std::string missing() const { return (m_path / "missing").string(); }

private:
    std::filesystem::path m_path;
    std::vector<std::string> m_jars;
};

void printPhase(const char* name, const PhaseResult& result, double rss) {
    std::cout << std::left << std::setw(10) << name << std::right << std::setw(12)
              << result.commands() << std::setw(10) << std::fixed << std::setprecision(2)
              << result.seconds << std::setw(13) << std::setprecision(0)
              << static_cast<double>(result.commands()) / result.seconds << std::setw(10)
              << std::setprecision(1) << rss << std::setw(8) << result.wrong() << "\n";
}

int run(const StressOptions& options) {
    // Expected failures print nothing and, unless asked, write no record.
    setenv("OSTRELINK_LOGGING_LEVEL", "off", 0);
    setenv("JAVA_TOOL_OPTIONS", "-Xms64m -Xmx64m -XX:+AlwaysPreTouch", 0);
    // Before the server child starts, so that it inherits the JVM found here.
    DefaultJdk::useIfNoneSet("ostrelink-stress");

    const std::string bin = executableDirectory();
    // Started before this process has a JVM: forking a process with a running JVM is unsafe.
    std::optional<ServerChild> server;
    if (options.network) {
        server.emplace(bin + "ostrelink-server");
    }

    void* library = openLibrary(bin + OSTRELINK_STRESS_NATIVE_DIR +
                                "libOstrelinkJvmRuntimeNative" OSTRELINK_STRESS_LIBRARY_SUFFIX);
    exported<int (*)(std::string)>(
        library, "_Z23SetWorkingDirectoryPathNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")(
        options.errorLogDirectory.empty() ? "/nonexistent/ostrelink-stress"
                                          : options.errorLogDirectory);
    auto* receiver =
        exported<CreateReceiverFn>(library, "CreateReceiver")(RuntimeOperationMode::Called);
    receiver->Initialize(static_cast<unsigned char>(Runtime::Cpp),
                         static_cast<unsigned char>(Runtime::Jvm), 0);
    auto* transmitter =
        exported<CreateTransmitterFn>(library, "CreateTransmitter")(RuntimeOperationMode::Called);

    const JarDirectory jars;
    StressWorkload workload(Targets{receiver, transmitter,
                                    server ? server->port() : static_cast<unsigned short>(0),
                                    jars.jars(), jars.missing()});

    const std::size_t tenth = options.commands / 10;
    std::cout << "ostrelink-stress: " << options.threads << " threads; per thread " << tenth
              << " warm-up, " << tenth << " short, " << options.commands << " long commands"
              << (server ? "; ostrelink-server on 127.0.0.1:" + std::to_string(server->port())
                         : std::string("; no network"))
              << "\nJAVA_TOOL_OPTIONS=" << std::getenv("JAVA_TOOL_OPTIONS") << "\n\n";
    std::cout << "phase         commands   seconds   commands/s   rss_mib   wrong\n";

    const PhaseResult warmUp = workload.run(options.threads, tenth, 0);
    const double rssWarm = residentMiB();
    printPhase("warm-up", warmUp, rssWarm);
    const PhaseResult shortPhase = workload.run(options.threads, tenth, tenth);
    const double rssShort = residentMiB();
    printPhase("short", shortPhase, rssShort);
    const PhaseResult longPhase = workload.run(options.threads, options.commands, 2 * tenth);
    const double rssLong = residentMiB();
    printPhase("long", longPhase, rssLong);

    std::cout << "\nroad (all phases)        sent       right   wrong\n";
    std::size_t wrong = 0;
    for (std::size_t road = 0; road < roadCount; ++road) {
        const std::size_t sent =
            warmUp.roads[road].sent + shortPhase.roads[road].sent + longPhase.roads[road].sent;
        const std::size_t right =
            warmUp.roads[road].right + shortPhase.roads[road].right + longPhase.roads[road].right;
        const std::size_t bad =
            warmUp.roads[road].wrong + shortPhase.roads[road].wrong + longPhase.roads[road].wrong;
        wrong += bad;
        std::cout << std::left << std::setw(20) << roadName(static_cast<Road>(road)) << std::right
                  << std::setw(10) << sent << std::setw(12) << right << std::setw(8) << bad << "\n";
    }

    const double shortGrowth = rssShort - rssWarm;
    const double longGrowth = rssLong - rssShort;
    const bool flat = longGrowth <= 2 * std::max(shortGrowth, 0.0) + allowedExtraGrowthMiB;
    std::cout << std::setprecision(1) << "\nresident memory: " << rssWarm << " MiB after warm-up, "
              << rssShort << " MiB after the short phase (" << std::showpos << shortGrowth
              << std::noshowpos << "), " << rssLong << " MiB after the long phase (" << std::showpos
              << longGrowth << std::noshowpos << "): " << (flat ? "flat" : "GROWING") << "\n";

    const int jvms = jvmsInProcess();
    std::cout << "JVMs in this process: " << jvms << "\n";
    int serverStatus = 0;
    if (server) {
        serverStatus = server->stop();
        std::cout << "ostrelink-server stopped: "
                  << (WIFEXITED(serverStatus) ? "exit " + std::to_string(WEXITSTATUS(serverStatus))
                                              : "signal " + std::to_string(WTERMSIG(serverStatus)))
                  << "\n";
    }
    for (const auto& problem : workload.firstProblems()) {
        std::cout << "problem: " << problem << "\n";
    }
    // Once Java has run in the server, the JVM's SIGTERM handler may end it with 143 before the
    // server's own orderly stop gives 0.
    const bool serverEnded =
        !server || (WIFEXITED(serverStatus) &&
                    (WEXITSTATUS(serverStatus) == 0 || WEXITSTATUS(serverStatus) == 143));
    const bool passed = wrong == 0 && flat && jvms == 1 && serverEnded;
    std::cout << "result: " << (passed ? "PASS" : "FAIL") << std::endl;
    return passed ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (ToolVersion::printIfAsked("ostrelink-stress", argc, argv)) {
        return 0;
    }
    StressOptions options;
    try {
        options = StressOptions::parse(argc, argv);
    } catch (const UsageError& error) {
        std::cerr << "ostrelink-stress: " << error.what() << "\nTry ostrelink-stress --help."
                  << std::endl;
        return 2;
    }
    if (options.help) {
        std::cout << StressOptions::usage();
        return 0;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "ostrelink-stress: " << error.what() << std::endl;
        return 1;
    }
}
