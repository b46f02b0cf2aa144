#include "StressOptions.h"

#include <cstdlib>
#include <string>

namespace Ostrelink::Tools::Stress {

namespace {

std::size_t positive(const std::string& option, const char* text, std::size_t most) {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (*text == '\0' || *text == '-' || end == nullptr || *end != '\0' || value == 0 ||
        value > most) {
        throw UsageError(option + " needs a whole number from 1 to " + std::to_string(most) +
                         ", not \"" + text + "\"");
    }
    return static_cast<std::size_t>(value);
}

}  // namespace

StressOptions StressOptions::parse(int argc, char** argv) {
    StressOptions options;
    for (int index = 1; index < argc; ++index) {
        const std::string option = argv[index];
        const auto value = [&]() -> const char* {
            if (index + 1 >= argc) {
                throw UsageError(option + " needs a value");
            }
            return argv[++index];
        };
        if (option == "--threads") {
            options.threads = positive(option, value(), 256);
        } else if (option == "--commands") {
            options.commands = positive(option, value(), 100000000);
        } else if (option == "--no-network") {
            options.network = false;
        } else if (option == "--error-log") {
            options.errorLogDirectory = value();
        } else if (option == "--help") {
            options.help = true;
        } else {
            throw UsageError("unknown option " + option);
        }
    }
    if (options.commands < 10) {
        throw UsageError("--commands must be at least 10: the short phase runs a tenth of it");
    }
    return options;
}

const char* StressOptions::usage() {
    return R"(Usage: ostrelink-stress [options]

Drives the JVM runtime library of this installation from many threads at once in one process,
and checks that every thread reads exactly its own replies. Each thread sends a mix of commands:
echo through Java, health checks, heartbeats (acknowledged by Java), load-library commands and commands that must fail,
through the receiver; echo to the Cpp runtime stand-in through the transmitter in memory; echo
through Java in an ostrelink-server child over TCP on 127.0.0.1; and messages the transmitter
must refuse. Every payload carries its thread and sequence number.

The run has three phases: a warm-up and a short phase of a tenth of --commands each, then a long
phase of --commands. Resident memory (/proc/self/statm) is taken after each; the run fails if the
long phase grows it by more than twice the short phase's growth plus 8 MiB.

Needs JAVA_HOME (or the installation's configuration) to find the JVM. Unless JAVA_TOOL_OPTIONS is
set, the JVMs run with a fixed, pre-touched 64 MiB heap, so that heap growth doesn't pass for a
leak.

Options:
  --threads N        Threads sending at once (1-256). Default: 8
  --commands N       Commands per thread in the long phase (10-100000000). Default: 10000
  --no-network       Leave out the ostrelink-server child and the TCP road.
  --error-log DIR    Directory of the library's error log. Default: none, so that the expected
                     failures skip the 50 ms pause that writing a record costs each of them.
  --help             Show this text.
  -V, --version      Print the version (first argument only).

Exit status: 0 when every reply was right and memory stayed flat, 1 otherwise, 2 on bad usage.
)";
}

}  // namespace Ostrelink::Tools::Stress
