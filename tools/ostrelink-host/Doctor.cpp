#include "Doctor.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <locale>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "HostSession.h"
#include "RuntimeLibrary.h"
#include "launcher/JvmSearch.h"
#include "launcher/JvmStartChecks.h"
#include "support/ErrorLogFile.h"
#include "support/Platform.h"

namespace fs = std::filesystem;

namespace {

const std::string serverVm = std::string(OSTRELINK_JVM_CANDIDATE_JDK).substr(1);
const char* const invocationFunctions[] = {"JNI_GetCreatedJavaVMs", "JNI_CreateJavaVM"};

// Lines of the library: what Initialize prints, and the end of its runtime info.
using Ostrelink::Native::Launcher::configuredSourceLine;
using Ostrelink::Native::Launcher::variableSourceLine;
constexpr char searchPathLine[] = "JVM shared library search path: ";
constexpr char runtimeInfoMark[] = "\nRUNTIME INFO:\n";
// What Initialize prints in debug mode, where the JVM start waits for a debugger.
constexpr char debugModeLine[] = "Jvm Launcher: Debug mode enabled.";

constexpr char receiverClassEntry[] = "com/ostrelink/core/receiver/Receiver.class";

// The first problem found: its text, and what to do about it.
class Problem : public std::runtime_error {
public:
    Problem(const std::string& text, std::string fix)
        : std::runtime_error(text), m_fix(std::move(fix)) {}
    const std::string& fix() const { return m_fix; }

private:
    std::string m_fix;
};

// A library opened for a look and closed again. The runtime library holds handles of its own, so
// closing this one never unloads what the runtime uses.
class OpenedLibrary {
public:
    OpenedLibrary(const std::string& path, int flags) : m_handle(dlopen(path.c_str(), flags)) {
        if (m_handle == nullptr) {
            const char* reason = dlerror();
            m_error = reason != nullptr ? reason : "unknown reason";
        }
    }
    ~OpenedLibrary() {
        if (m_handle != nullptr) {
            dlclose(m_handle);
        }
    }
    OpenedLibrary(const OpenedLibrary&) = delete;
    OpenedLibrary& operator=(const OpenedLibrary&) = delete;

    explicit operator bool() const { return m_handle != nullptr; }
    const std::string& error() const { return m_error; }
    void* find(const char* name) const { return dlsym(m_handle, name); }

private:
    void* m_handle;
    std::string m_error;
};

// While it lives, descriptor 1 writes into a temporary file. text() ends that and gives what was
// written; the tool sends the library's lines to standard error, so they are copied there too.
class CapturedStandardOutput {
public:
    CapturedStandardOutput() : m_file(std::tmpfile()) {
        if (m_file == nullptr) {
            throw std::runtime_error(std::string("cannot make a temporary file: ") +
                                     std::strerror(errno));
        }
        std::fflush(stdout);
        m_saved = ::dup(STDOUT_FILENO);
        if (m_saved < 0 || ::dup2(::fileno(m_file), STDOUT_FILENO) < 0) {
            const int error = errno;
            restore();
            std::fclose(m_file);
            throw std::runtime_error(std::string("cannot capture standard output: ") +
                                     std::strerror(error));
        }
    }
    ~CapturedStandardOutput() {
        restore();
        std::fclose(m_file);
    }
    CapturedStandardOutput(const CapturedStandardOutput&) = delete;
    CapturedStandardOutput& operator=(const CapturedStandardOutput&) = delete;

    std::string text() {
        restore();
        std::rewind(m_file);
        std::string text;
        char buffer[4096];
        std::size_t read = 0;
        while ((read = std::fread(buffer, 1, sizeof buffer, m_file)) > 0) {
            text.append(buffer, read);
        }
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
        return text;
    }

private:
    void restore() {
        if (m_saved < 0) {
            return;
        }
        std::fflush(stdout);
        ::dup2(m_saved, STDOUT_FILENO);
        ::close(m_saved);
        m_saved = -1;
    }

    std::FILE* m_file;
    int m_saved = -1;
};

// The rest of the last line of text that begins with prefix.
std::optional<std::string> lineAfter(const std::string& text, const std::string& prefix) {
    std::optional<std::string> found;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind(prefix, 0) == 0) {
            found = line.substr(prefix.size());
        }
    }
    return found;
}

// A library failure without its runtime info, on one line.
std::string oneLine(const std::string& failure) {
    std::string line;
    for (const char c : failure.substr(0, failure.find(runtimeInfoMark))) {
        if (c != '\n') {
            line.push_back(c);
        } else if (!line.empty() && line.back() != ' ') {
            line.push_back(' ');
        }
    }
    return line;
}

// "001" from "JVM Launcher: Exception code 001. ...", or empty.
std::string codeOf(const std::string& failure) {
    const std::string mark = "Exception code ";
    const std::size_t at = failure.find(mark);
    return at == std::string::npos ? std::string() : failure.substr(at + mark.size(), 3);
}

// The JVM refused its options (031 to 036) or gave up its start (037): name the options of
// OSTRELINK_JVM_OPTIONS that its message points at.
std::string fixForJvmStart(const std::string& failure) {
    using Ostrelink::Native::Launcher::jvmMessageNote;
    const std::size_t note = failure.find(jvmMessageNote);
    const std::string message = note == std::string::npos
                                    ? std::string()
                                    : oneLine(failure.substr(note + sizeof jvmMessageNote - 1));
    const std::string said = message.empty() ? "" : " (the JVM said: " + message + ")";
    const char* value = std::getenv("OSTRELINK_JVM_OPTIONS");
    const auto options = Ostrelink::Native::Launcher::splitJvmOptions(value == nullptr ? "" : value)
                             .value_or(std::vector<std::string>());
    if (options.empty()) {
        return "the JVM refused to start" + said +
               ": check JAVA_TOOL_OPTIONS and _JAVA_OPTIONS, which it reads too, "
               "OSTRELINK_DEBUG_MODE (its 2 GiB heap), and that the JVM library belongs to a "
               "whole JDK or JRE";
    }
    const auto blamed = Ostrelink::Native::Launcher::optionsBlamedBy(message, options);
    if (blamed.empty()) {
        return "fix or drop the option of OSTRELINK_JVM_OPTIONS that the JVM names on standard "
               "error" +
               said + ", or unset the variable";
    }
    std::string names;
    for (const auto& option : blamed) {
        names += (names.empty() ? "" : " and ") + option;
    }
    return "fix or drop " + names + " in OSTRELINK_JVM_OPTIONS" + said + ", or unset the variable";
}

std::string fixForFailure(const std::string& failure) {
    const std::string code = codeOf(failure);
    if (code == "022" || code == "024" || code == "025" || code == "026") {
        return "the runtime jar does not match this library: reinstall the installation";
    }
    if (code >= "031" && code <= "037") {
        return fixForJvmStart(failure);
    }
    if (code == "045") {
        return "drop that option from OSTRELINK_JVM_OPTIONS: put jars on the class path with "
               "load, and leave the JDWP agent to OSTRELINK_DEBUG_MODE";
    }
    if (code == "046") {
        return "close the quote in OSTRELINK_JVM_OPTIONS: an option with spaces goes between a "
               "pair of single or double quotes";
    }
    return "look the code up in docs/errors.md";
}

struct JvmSource {
    std::string name;  // as the fix names it
    std::string value;
};

enum class State { Missing, Directory, DoesNotLoad, LacksFunctions, Loads, NotTried };

struct Candidate {
    std::string path;
    State state;
    std::string description;
};

// Why a path can't be looked at, as a candidate's line says it and as "<path>, which ...".
struct Unreachable {
    std::string description;
    std::string which;
    bool missing() const { return description == "missing"; }
};

// nullopt when path can be looked at.
std::optional<Unreachable> unreachable(const std::string& path) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (path.empty() || error == std::errc::no_such_file_or_directory ||
        error == std::errc::not_a_directory || (!error && !fs::exists(status))) {
        return Unreachable{"missing", "does not exist"};
    }
    if (error == std::errc::too_many_symbolic_link_levels) {
        return Unreachable{"a loop of symbolic links", "is a loop of symbolic links"};
    }
    if (error) {
        return Unreachable{"can't be reached: " + error.message(),
                           "can't be reached: " + error.message()};
    }
    return std::nullopt;
}

Candidate examine(const std::string& path, bool tried) {
    if (const auto reason = unreachable(path)) {
        return {path, State::Missing, reason->description};
    }
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::is_directory(status)) {
        return {path, State::Directory, "a directory, no library"};
    }
    if (!tried) {
        return {path, State::NotTried, "exists, not tried: an earlier candidate loaded"};
    }
    const OpenedLibrary library(path, RTLD_LAZY);
    if (!library) {
        return {path, State::DoesNotLoad, "exists, does not load: " + library.error()};
    }
    std::string missing;
    for (const char* name : invocationFunctions) {
        if (library.find(name) == nullptr) {
            missing += (missing.empty() ? "" : " and ") + std::string(name);
        }
    }
    if (!missing.empty()) {
        return {path, State::LacksFunctions, "exists, loads, lacks " + missing};
    }
    return {path, State::Loads,
            std::string("exists, loads, exports ") + invocationFunctions[0] + " and " +
                invocationFunctions[1]};
}

std::string pointAtAJvm(const JvmSource& source) {
    if (source.name == "JAVA_HOME") {
        return "set JAVA_HOME to the root directory of a JDK, or of a JRE with the server VM (" +
               serverVm + ")";
    }
    return "set " + source.name + " to the root directory of a JDK or JRE, or to its " + serverVm;
}

// What to do when the library found no JVM library (002) or no JVM in the one it opened (003).
std::string fixForSearch(const std::string& code, const JvmSource& source,
                         const std::vector<Candidate>& candidates) {
    if (const auto reason = unreachable(source.value); code == "002" && reason) {
        return source.name + " names " + source.value + ", which " + reason->which + ": " +
               pointAtAJvm(source);
    }
    for (const Candidate& candidate : candidates) {
        if (candidate.state == State::DoesNotLoad) {
            return candidate.path +
                   " does not load: it may be built for another machine or miss a library it "
                   "needs; " +
                   pointAtAJvm(source);
        }
        if (candidate.state == State::LacksFunctions) {
            return candidate.path + " is no JVM library: " + pointAtAJvm(source);
        }
    }
    return source.value + " holds no JVM library: a JRE without the server VM, or no JVM at all; " +
           pointAtAJvm(source);
}

// Whether the zip archive (a jar) in bytes has an entry of that name, by its central directory.
// No value when the bytes are no zip archive.
std::optional<bool> zipHasEntry(const std::string& bytes, const std::string& name) {
    const auto little = [&bytes](std::size_t at, int size) {
        std::uint32_t value = 0;
        for (int i = size - 1; i >= 0; --i) {
            value =
                value << 8 | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(i)]);
        }
        return static_cast<std::size_t>(value);
    };
    constexpr std::size_t endRecordSize = 22;
    constexpr std::size_t entryHeaderSize = 46;
    if (bytes.size() < endRecordSize) {
        return std::nullopt;
    }
    // The end record closes the file, followed only by a comment of at most 64 KiB.
    std::size_t end = bytes.size() - endRecordSize;
    const std::size_t lowest = end > 0xFFFF ? end - 0xFFFF : 0;
    while (little(end, 4) != 0x06054b50) {
        if (end == lowest) {
            return std::nullopt;
        }
        --end;
    }
    const std::size_t count = little(end + 10, 2);
    std::size_t at = little(end + 16, 4);
    for (std::size_t entry = 0; entry < count; ++entry) {
        if (at + entryHeaderSize > bytes.size() || little(at, 4) != 0x02014b50) {
            return std::nullopt;
        }
        const std::size_t nameLength = little(at + 28, 2);
        if (at + entryHeaderSize + nameLength > bytes.size()) {
            return std::nullopt;
        }
        if (bytes.compare(at + entryHeaderSize, nameLength, name) == 0) {
            return true;
        }
        at += entryHeaderSize + nameLength + little(at + 30, 2) + little(at + 32, 2);
    }
    return false;
}

std::string today() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::ostringstream date;
    date.imbue(std::locale::classic());
    date << std::put_time(&local, Ostrelink::Native::ErrorLogFile::dateFormat);
    return date.str();
}

// The bytes of the runtime jar; a Problem when there is none to read.
std::string readRuntimeJar(const std::string& jar) {
    const std::string reinstall =
        "reinstall: the library puts this jar on the JVM's class path, and the JVM start fails "
        "without it (code 022)";
    if (const auto reason = unreachable(jar)) {
        throw Problem(
            "the runtime jar " + jar + (reason->missing() ? " is missing" : " " + reason->which),
            reinstall);
    }
    std::error_code error;
    if (fs::is_directory(jar, error)) {
        throw Problem("the runtime jar " + jar + " is a directory, not a jar", reinstall);
    }
    std::ifstream file(jar, std::ios::binary);
    std::ostringstream bytes;
    if (!file || !(bytes << file.rdbuf())) {
        throw Problem("the runtime jar " + jar + " can't be read: " + std::strerror(errno),
                      reinstall);
    }
    return bytes.str();
}

template <typename Function>
Function exportOf(const OpenedLibrary& library, const std::string& path, const char* name) {
    auto* function = reinterpret_cast<Function>(library.find(name));
    if (function == nullptr) {
        throw Problem("the Configs library " + path + " lacks " + name,
                      "reinstall: the runtime library takes its settings from it");
    }
    return function;
}

using Clock = std::chrono::steady_clock;

std::string milliseconds(Clock::duration duration, int decimals) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals)
         << std::chrono::duration<double, std::milli>(duration).count() << " ms";
    return text.str();
}

}  // namespace

void Doctor::say(const std::string& line) {
    m_out << "doctor: " << line << '\n';
    m_out.flush();
}

int Doctor::run(const std::string& libraryPath) {
    say("ostrelink-host " OSTRELINK_VERSION);
    try {
        check(libraryPath);
        say("all checks passed");
        return 0;
    } catch (const Problem& problem) {
        say(std::string("problem: ") + problem.what());
        say("fix: " + problem.fix());
    } catch (const std::exception& failure) {
        say("problem: " + oneLine(failure.what()));
        say("fix: " + fixForFailure(failure.what()));
    }
    return 1;
}

void Doctor::check(const std::string& libraryPath) {
    std::optional<RuntimeLibrary> library;
    try {
        library.emplace(libraryPath);
    } catch (const std::exception& failure) {
        throw Problem(failure.what(),
                      "reinstall, or give the runtime library of an installation with --library");
    }
    say("runtime library: " + library->path());
    Ostrelink::Native::Interfaces::IReceiver* receiver = library->createReceiver();

    std::string printed;
    std::string failure;
    {
        CapturedStandardOutput capture;
        try {
            HostSession::initialize(receiver);
        } catch (const std::exception& error) {
            failure = error.what();
        }
        printed = capture.text();
    }

    // The source: the library says which of the first two it took; JAVA_HOME is the rest.
    const std::string code = codeOf(failure);
    std::optional<JvmSource> source;
    if (auto configured = lineAfter(printed, configuredSourceLine)) {
        source = JvmSource{"the configured path", *configured};
    } else if (auto variable = lineAfter(printed, variableSourceLine);
               variable && !variable->empty()) {
        source = JvmSource{"OSTRELINK_JVM_RUNTIME_PATH", *variable};
    } else if (const char* javaHome = std::getenv("JAVA_HOME");
               javaHome != nullptr && code != "001") {
        source = JvmSource{"JAVA_HOME", javaHome};
    }
    if (!source) {
        say("JVM source: none (no configured path; OSTRELINK_JVM_RUNTIME_PATH and JAVA_HOME are "
            "unset or empty; no java on PATH)");
        throw Problem(oneLine(failure),
                      "set JAVA_HOME to the root directory of a JDK or JRE, or "
                      "OSTRELINK_JVM_RUNTIME_PATH to such a directory or to its " +
                          serverVm + ", or put a JDK's java on PATH");
    }
    say("JVM source: " + source->name + " = " + source->value +
        (source->name == "JAVA_HOME" && m_javaHomeFromPath ? " (the JDK of java on PATH)" : ""));

    // The library tries the candidates in order and names the last one it handed to the loader.
    const std::string reported =
        lineAfter(failure.empty() ? printed : failure, searchPathLine).value_or("");
    std::vector<Candidate> candidates;
    bool tried = true;
    // The JVM library's places under the source, from the library's own search.
    for (const std::string& place : Ostrelink::Native::Launcher::jvmCandidates(source->value)) {
        candidates.push_back(examine(place, tried));
        const bool used = failure.empty() && candidates.back().path == reported;
        say("libjvm candidate: " + candidates.back().path + ": " + candidates.back().description +
            (used ? ", used" : ""));
        tried = tried && candidates.back().path != reported;
    }
    if (!failure.empty()) {
        throw Problem(oneLine(failure), code == "002" || code == "003"
                                            ? fixForSearch(code, *source, candidates)
                                            : fixForFailure(failure));
    }

    const std::string jar = (fs::path(library->path()).parent_path() / OSTRELINK_HOST_RUNTIME_JAR)
                                .lexically_normal()
                                .string();
    const std::string bytes = readRuntimeJar(jar);
    const std::optional<bool> holdsReceiver = zipHasEntry(bytes, receiverClassEntry);
    if (!holdsReceiver || !*holdsReceiver) {
        throw Problem("the runtime jar " + jar +
                          (holdsReceiver ? " holds no " : " is no jar, so it holds no ") +
                          receiverClassEntry,
                      "reinstall: the jar does not belong to this library");
    }
    say("runtime jar: " + jar + ": holds " + receiverClassEntry);

    const std::string configsPath =
        (fs::path(library->path()).parent_path() / OSTRELINK_LIBRARY_FILE("Configs")).string();
    const OpenedLibrary configs(configsPath, RTLD_NOW | RTLD_LOCAL);
    if (!configs) {
        throw Problem("the Configs library does not load: " + configs.error(),
                      "reinstall: the runtime library takes its settings from it");
    }
    const std::string configSource =
        exportOf<std::string (*)()>(configs, configsPath, "GetConfigSource")();
    const std::string workingDirectory =
        exportOf<std::string (*)()>(configs, configsPath, "GetWorkingDirectory")();
    say("configuration source: " + (configSource.empty() ? "none" : configSource));
    say("working directory: " + workingDirectory);
    say("error log: " + Ostrelink::Native::ErrorLogFile::path(workingDirectory, today()));
    if (::access(workingDirectory.c_str(), W_OK) != 0) {
        throw Problem("the working directory " + workingDirectory +
                          " is not writable: a failure would leave no record in the error log",
                      "run from a writable directory, or configure a writable working directory");
    }

    const char* options = std::getenv("OSTRELINK_JVM_OPTIONS");
    say(std::string("JVM options (OSTRELINK_JVM_OPTIONS): ") +
        (options != nullptr && *options != '\0' ? options : "none"));

    HostSession session(receiver);
    session.checkHealth();
    say("health check: ok");
    if (printed.find(debugModeLine) != std::string::npos) {
        say("JVM start: debug mode (OSTRELINK_DEBUG_MODE): the JVM waits for a debugger on "
            "127.0.0.1:8988 before it starts; attach one, or unset OSTRELINK_DEBUG_MODE to start "
            "without");
    }
    Clock::time_point start = Clock::now();
    const std::string info = session.javaRuntimeInfo();
    const Clock::duration startTime = Clock::now() - start;
    say("JVM start: ok in " + milliseconds(startTime, 0) + ", Java " +
        lineAfter(info, "java.version: ").value_or("?") + " in " +
        lineAfter(info, "java.home: ").value_or("?"));
    start = Clock::now();
    session.echo("doctor");
    say("echo: ok, round trip " + milliseconds(Clock::now() - start, 3));
}
