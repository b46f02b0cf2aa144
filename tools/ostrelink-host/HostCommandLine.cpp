#include "HostCommandLine.h"

#include <cstddef>
#include <optional>

namespace {

std::optional<HostStep::Kind> commandKind(const std::string& word) {
    if (word == "health") {
        return HostStep::Kind::Health;
    }
    if (word == "load") {
        return HostStep::Kind::Load;
    }
    if (word == "call") {
        return HostStep::Kind::Call;
    }
    if (word == "echo") {
        return HostStep::Kind::Echo;
    }
    if (word == "info") {
        return HostStep::Kind::Info;
    }
    return std::nullopt;
}

}  // namespace

HostCommandLine HostCommandLine::parse(const std::vector<std::string>& arguments) {
    HostCommandLine line;
    std::size_t next = 0;
    while (next < arguments.size() && arguments[next].rfind("-", 0) == 0) {
        const std::string& option = arguments[next++];
        if (option == "--help" || option == "-h") {
            line.m_help = true;
        } else if (option == "--library") {
            if (next == arguments.size()) {
                throw UsageError("--library needs the path of the runtime library");
            }
            line.m_libraryPath = arguments[next++];
        } else {
            throw UsageError("unknown option '" + option + "'");
        }
    }
    if (line.m_help) {
        return line;
    }
    if (next == arguments.size()) {
        throw UsageError("no command given");
    }
    // The first command that needs Java starts the JVM; its class path is fixed from then on,
    // and the library would still acknowledge a later load that can never take effect.
    std::optional<std::string> startedJvm;
    while (next < arguments.size()) {
        const std::string& word = arguments[next++];
        if (word == "doctor") {
            // It starts the JVM itself, at its own moment, and stops at the first problem.
            if (next != arguments.size() || !line.m_steps.empty()) {
                throw UsageError("doctor runs alone: give it without other commands");
            }
            line.m_doctor = true;
            break;
        }
        const auto kind = commandKind(word);
        if (!kind) {
            throw UsageError("unknown command '" + word + "'");
        }
        if (*kind != HostStep::Kind::Health && *kind != HostStep::Kind::Load && !startedJvm) {
            startedJvm = word;
        }
        HostStep step{*kind, {}};
        switch (*kind) {
            case HostStep::Kind::Health:
            case HostStep::Kind::Info:
                break;
            case HostStep::Kind::Echo:
                if (next == arguments.size()) {
                    throw UsageError("echo needs a text");
                }
                step.arguments.push_back(arguments[next++]);
                break;
            case HostStep::Kind::Load:
            case HostStep::Kind::Call:
                // The arguments run to the next command word; after "--" a call takes the rest
                // of the line, so that an argument may be a command word itself.
                while (next < arguments.size() && !commandKind(arguments[next])) {
                    if (*kind == HostStep::Kind::Call && arguments[next] == "--") {
                        step.arguments.insert(step.arguments.end(),
                                              arguments.begin() + static_cast<long>(next + 1),
                                              arguments.end());
                        next = arguments.size();
                        break;
                    }
                    step.arguments.push_back(arguments[next++]);
                }
                if (*kind == HostStep::Kind::Load && step.arguments.empty()) {
                    throw UsageError("load needs at least one jar file or directory");
                }
                if (*kind == HostStep::Kind::Load && startedJvm) {
                    throw UsageError("load " + step.arguments.front() + " comes after " +
                                     *startedJvm +
                                     ", which started the JVM: its class path can't change any "
                                     "more; give load before the first call, echo or info");
                }
                if (*kind == HostStep::Kind::Call && step.arguments.size() < 2) {
                    throw UsageError("call needs a class name and a method name");
                }
                break;
        }
        line.m_steps.push_back(std::move(step));
    }
    return line;
}

std::string HostCommandLine::helpText() {
    return R"(Usage: ostrelink-host [--library PATH] COMMAND [ARGUMENTS]... [COMMAND [ARGUMENTS]...]...

Runs commands in a JVM through the runtime library of this installation, the way another
runtime's library does: it opens the library by full path, creates its receiver, initialises it
with Cpp as the calling runtime, and sends one message per command, in the order given. The JVM
starts with the first command that needs Java. The first command that fails ends the run.

Commands:
  health                    Health check, answered by the library without starting the JVM.
  load PATH...              Put jar files, or the jar files of directories, on the class path of
                            the JVM. Give them before the first call, echo or info, which start
                            the JVM; a load after them is refused.
  call CLASS METHOD [ARG]...
                            Call a public static method of CLASS that takes as many String
                            parameters as ARGs are given and print its result. The arguments
                            end at the next command word; after "--" they take the rest of the
                            line.
  echo TEXT                 Send TEXT to the JVM and print what comes back.
  info                      Print the JVM's version, vendor, home and class path.
  doctor                    Check the installation line by line: the JVM source and each JVM
                            library candidate, the runtime jar, the configuration, the JVM
                            options, then a health check, a JVM start and an echo. Stops at the
                            first problem with what to do about it (status 1). Runs alone.

Results go to standard output, one line each, prefixed with the command's name ("call: ..."),
and nothing else does: the library's own progress lines and runtime information, and whatever
Java prints to System.out, go to standard error.
A failure prints the library's error text, or the Java exception as "class: message", on
standard error, and the exit status is 1. A command line that can't be run gives status 2.

Options:
  --library PATH            The runtime library to open, instead of
                            ../Binaries/Native/<system>/<architecture>/ beside this program.
  -h, --help                This text.
  -V, --version             Print the version (first argument only).

Environment:
  JAVA_HOME                 Root directory of the JDK or JRE to run. When neither it nor
                            OSTRELINK_JVM_RUNTIME_PATH is set, ostrelink-host uses the JDK of
                            the first java or javac on PATH and says so on standard error.
  OSTRELINK_JVM_RUNTIME_PATH
                            A JVM root directory or the JVM library file itself; wins over
                            JAVA_HOME.
  OSTRELINK_DEBUG_MODE      "true" (any case): the JVM waits for a debugger on 127.0.0.1:8988.
  OSTRELINK_LOGGING_LEVEL   "off", "runtimeinfo" or "all": how much the library prints.
                            The doctor runs with "runtimeinfo".
  OSTRELINK_JVM_OPTIONS     Extra options of the JVM; the doctor shows them.

Example:
  ostrelink-host health call java.lang.System getProperty java.version info
)";
}
