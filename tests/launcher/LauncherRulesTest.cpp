#include <gmock/gmock.h>

#include <fstream>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "launcher/JvmSearch.h"
#include "launcher/JvmStartChecks.h"

using Ostrelink::Native::Launcher::findReservedJvmOption;
using Ostrelink::Native::Launcher::optionsBlamedBy;
using Ostrelink::Native::Launcher::readJvmOptionsFile;
using Ostrelink::Native::Launcher::searchJvm;
using Ostrelink::Native::Launcher::splitJvmOptions;
using Options = std::vector<std::string>;
using Source = Ostrelink::Native::Launcher::JvmSearch::Source;

// The old layout's candidate, named by the processor.
const std::string jre = "/jre/lib/[a-z0-9_]+/server/libjvm.so";
const std::string variableLine =
    "Looking for JVM runtime in OSTRELINK_JVM_RUNTIME_PATH environment variable: ";

// The configuration first, then OSTRELINK_JVM_RUNTIME_PATH unless empty, then JAVA_HOME, even
// empty; the variable is printed whenever it is asked and set.
TEST(JvmSearchOrder, FirstSourceWithAPathWinsAndTheCandidatesFollowIt) {
    using Case = std::tuple<const char*, const char*, const char*, Source, std::string, Options>;
    const Case cases[] = {
        {"", nullptr, nullptr, Source::None, "", {}},
        {"", "", nullptr, Source::None, "", {variableLine}},
        {"", "", "/jdk", Source::JavaHome, "/jdk", {variableLine}},
        {"", nullptr, "", Source::JavaHome, "", {}},
        {"", "/rt", "/jdk", Source::RuntimePathVariable, "/rt", {variableLine + "/rt"}},
        {"/c", "/rt", "/jdk", Source::Configured, "/c", {"Looking for JVM runtime in path: /c"}},
    };
    for (const auto& [configured, runtimePath, javaHome, source, path, lines] : cases) {
        const auto search = searchJvm(configured, runtimePath, javaHome);
        EXPECT_EQ(std::tie(search.source, search.path, search.lines),
                  std::tie(source, path, lines));
        EXPECT_EQ(search.failure.has_value(), source == Source::None) << path;
        if (source != Source::None) {
            EXPECT_THAT(search.candidates,
                        testing::ElementsAre(path, testing::MatchesRegex(path + jre),
                                             path + "/lib/server/libjvm.so"));
        } else {
            EXPECT_TRUE(search.candidates.empty());
        }
    }
}

// Options split on white space with quotes grouping; the class path is refused always, the JDWP
// agent in debug mode.
TEST(JvmStartChecks, SplitAndRefuseOptions) {
    const std::pair<const char*, std::optional<Options>> splits[] = {
        {" \t\n\v\f\r ", Options{}},
        {"  \"-Dx=it's\"\t'a'\"b\"c '' \"'\" ", Options{"-Dx=it's", "abc", "", "'"}},
        {"-Dx='open", std::nullopt},
    };
    for (const auto& [text, options] : splits) {
        EXPECT_EQ(splitJvmOptions(text), options) << text;
    }
    // An options file: read and split like the variable; a file that can't be read is the JVM's
    // to report.
    const auto readFile = [](const std::string& path) -> std::optional<std::string> {
        if (path == "/f") {
            return "-Xmx1g\n '-Djava.class.path=/x y' -agentpath:/opt/jdwp";
        }
        return std::nullopt;
    };
    const std::tuple<Options, bool, bool, std::string> reserved[] = {
        {{"-ea", "-cp", "x"}, true, false, "-cp"},
        {{"-classpath"}, true, false, "-classpath"},
        {{"--class-path"}, true, false, "--class-path"},
        {{"--class-path=x"}, true, false, "--class-path=x"},
        {{"-Djava.class.path=x"}, true, false, "-Djava.class.path=x"},
        {{"-Djava.class.path=x"}, false, true, ""},
        {{"-Djava.class.paths=x", "-cpx", "-agentlib:jdwp=transport=dt_socket"}, true, false, ""},
        {{"-agentlib:jdwp=transport=dt_socket"}, true, true, "-agentlib:jdwp=transport=dt_socket"},
        {{"-agentlib:jdwpx", "-Xrunjdwp:server=y"}, true, true, "-Xrunjdwp:server=y"},
        {{"-agentpath:/opt/libjdwp.so"}, false, true, "-agentpath:/opt/libjdwp.so"},
        {{"-agentpath:/libjdwp.so.1", "-agentpath:jdwp=a=b"}, false, true, "-agentpath:jdwp=a=b"},
        {{"-XX:VMOptionsFile=/none", "-XX:VMOptionsFile=/f"},
         true,
         false,
         "-Djava.class.path=/x y (in /f)"},
        {{"-XX:VMOptionsFile=/f"}, false, true, "-agentpath:/opt/jdwp (in /f)"},
        {{"-XX:VMOptionsFile=/f"}, false, false, ""},
    };
    for (const auto& [options, classPath, debugger, refused] : reserved) {
        EXPECT_EQ(findReservedJvmOption(options, {classPath, debugger}, readFile).value_or(""),
                  refused)
            << options.back();
    }
}

// An options file is read to the size it has, as the JVM reads it: a device that never ends
// counts as empty, and the check must not read it for ever before the JVM starts.
TEST(JvmStartChecks, ReadsAnOptionsFileAsTheJvmDoes) {
    const std::string path = testing::TempDir() + "/options-file";
    std::ofstream(path) << "-Xmx1g -ea";
    const std::pair<std::string, std::optional<std::string>> files[] = {
        {path, "-Xmx1g -ea"},
        {"/dev/zero", ""},
        {"/dev/null", ""},
        {path + ".none", std::nullopt},
    };
    for (const auto& [file, text] : files) {
        EXPECT_EQ(readJvmOptionsFile(file), text) << file;
    }
}

// The options that the JVM's message on a failed start points at: by name, else by kind.
TEST(JvmStartChecks, TheJvmsMessageBlamesOptions) {
    const Options options = {"-ea",          "-Xms2g",           "-Xmx1g",
                             "-XX:+UseG1GC", "-XX:+UseSerialGC", "-XX:+NoSuchOpt",
                             "-Xss1k",       "-XX:+UseNUMA"};
    const std::pair<const char*, Options> messages[] = {
        {"Initial heap size set to a larger value than the maximum heap size",
         {"-Xms2g", "-Xmx1g"}},
        {"Multiple garbage collectors selected", {"-XX:+UseG1GC", "-XX:+UseSerialGC"}},
        {"Unrecognized VM option 'NoSuchOpt'", {"-XX:+NoSuchOpt"}},
        {"The Java thread stack size specified is too small", {"-Xss1k"}},
        {"Could not find agent library x", {}},
        {"", {}},
    };
    for (const auto& [message, blamed] : messages) {
        EXPECT_EQ(optionsBlamedBy(message, options), blamed) << message;
    }
}
