#pragma once

#include <optional>
#include <string>
#include <vector>

#include "support/Failures.h"

namespace Ostrelink::Native::Launcher {

// The starts of the lines the search prints, each followed by the path (ostrelink-host doctor
// reads them).
inline constexpr char configuredSourceLine[] = "Looking for JVM runtime in path: ";
inline constexpr char variableSourceLine[] =
    "Looking for JVM runtime in OSTRELINK_JVM_RUNTIME_PATH environment variable: ";

// Where the JVM comes from: the first source that yields a path wins. The path may name a JVM
// root directory or the library file itself.
struct JvmSearch {
    enum class Source { None, Configured, RuntimePathVariable, JavaHome };
    Source source = Source::None;
    std::string path;
    // What the search prints on standard output, one line each, in order.
    std::vector<std::string> lines;
    // The places of the JVM library under path, in the order they are tried.
    std::vector<std::string> candidates;
    std::optional<Failures::Failure> failure;
};

// Pure: configured is the configuration's path (empty for none); runtimePath and javaHome are
// the values of OSTRELINK_JVM_RUNTIME_PATH and JAVA_HOME, null when unset. An empty runtimePath
// is printed and passed over; an empty javaHome is taken as it is.
JvmSearch searchJvm(const std::string& configured, const char* runtimePath, const char* javaHome);

// The path itself, then the platform's JRE and JDK places under it; nothing is trimmed.
std::vector<std::string> jvmCandidates(const std::string& path);

}  // namespace Ostrelink::Native::Launcher
