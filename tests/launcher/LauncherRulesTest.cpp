#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "launcher/JvmSearch.h"
#include "launcher/JvmStartChecks.h"

using Ostrelink::Native::Launcher::findReservedJvmOption;
using Ostrelink::Native::Launcher::searchJvm;
using Ostrelink::Native::Launcher::splitJvmOptions;
using Options = std::vector<std::string>;
using Lines = Options;
using Source = Ostrelink::Native::Launcher::JvmSearch::Source;

#if defined(__aarch64__)
const std::string jreCandidate = "/jre/lib/aarch64/server/libjvm.so";
#else
const std::string jreCandidate = "/jre/lib/amd64/server/libjvm.so";
#endif
const std::string jdkCandidate = "/lib/server/libjvm.so";
const std::string variableLine =
    "Looking for JVM runtime in OSTRELINK_JVM_RUNTIME_PATH environment variable: ";

// The configuration first, then OSTRELINK_JVM_RUNTIME_PATH unless empty, then JAVA_HOME, even
// empty; the variable is printed whenever it is asked and set.
TEST(JvmSearchOrder, FirstSourceWithAPathWinsAndTheCandidatesFollowIt) {
    const struct {
        const char *configured, *runtimePath, *javaHome;
        Source source;
        std::string path;
        Lines lines;
    } cases[] = {
        {"", nullptr, nullptr, Source::None, "", {}},
        {"", "", nullptr, Source::None, "", {variableLine}},
        {"", "", "/jdk", Source::JavaHome, "/jdk", {variableLine}},
        {"", nullptr, "", Source::JavaHome, "", {}},
        {"", "/rt", "/jdk", Source::RuntimePathVariable, "/rt", {variableLine + "/rt"}},
        {"/c", "/rt", "/jdk", Source::Configured, "/c", {"Looking for JVM runtime in path: /c"}},
    };
    for (const auto& c : cases) {
        const auto search = searchJvm(c.configured, c.runtimePath, c.javaHome);
        const bool none = c.source == Source::None;
        const Lines candidates =
            none ? Lines{} : Lines{c.path, c.path + jreCandidate, c.path + jdkCandidate};
        EXPECT_EQ(std::tie(search.source, search.path, search.lines, search.candidates),
                  std::tie(c.source, c.path, c.lines, candidates));
        EXPECT_EQ(search.failure.has_value(), none) << c.path;
    }
}

// Options split on white space with quotes grouping; the class path is refused always, the JDWP
// agent in debug mode.
TEST(JvmStartChecks, SplitAndRefuseOptions) {
    const std::pair<const char*, std::optional<Options>> splits[] = {
        {" \t\n\v\f\r ", Options{}},
        {"  \"-Dx=it's\"\t-ea ", Options{"-Dx=it's", "-ea"}},
        {"'a'\"b\"c '' \"'\"", Options{"abc", "", "'"}},
        {"-Dx='open", std::nullopt},
    };
    for (const auto& [text, options] : splits) {
        EXPECT_EQ(splitJvmOptions(text), options) << text;
    }
    const struct {
        Options options;
        bool debugMode;
        std::string refused;
    } reserved[] = {
        {{"-ea", "-cp", "x"}, false, "-cp"},
        {{"-classpath"}, false, "-classpath"},
        {{"--class-path"}, false, "--class-path"},
        {{"--class-path=x"}, false, "--class-path=x"},
        {{"-Djava.class.path=x"}, false, "-Djava.class.path=x"},
        {{"-Djava.class.paths=x", "-cpx", "-agentlib:jdwp=transport=dt_socket"}, false, ""},
        {{"-agentlib:jdwp=transport=dt_socket"}, true, "-agentlib:jdwp=transport=dt_socket"},
        {{"-agentlib:jdwpx", "-Xrunjdwp:transport=dt_socket"},
         true,
         "-Xrunjdwp:transport=dt_socket"},
    };
    for (const auto& c : reserved) {
        const std::string* refused = findReservedJvmOption(c.options, c.debugMode);
        EXPECT_EQ(refused == nullptr ? "" : *refused, c.refused) << c.options.front();
    }
}
