#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "launcher/JvmStartChecks.h"

using Ostrelink::Native::Launcher::findReservedJvmOption;
using Ostrelink::Native::Launcher::splitJvmOptions;
using Options = std::vector<std::string>;

namespace {

// Options split on white space with quotes grouping; the class path is refused always, the JDWP
// agent in debug mode.
TEST(JvmStartChecks, SplitAndRefuseOptions) {
    const struct {
        const char* text;
        std::optional<Options> options;
    } cases[] = {
        {"", Options{}},
        {" \t\n\v\f\r ", Options{}},
        {"-Xmx64m -Dprobe.value='a b'", Options{"-Xmx64m", "-Dprobe.value=a b"}},
        {"  \"-Dx=it's\"\t-ea ", Options{"-Dx=it's", "-ea"}},
        {"'a'\"b\"c '' \"'\"", Options{"abc", "", "'"}},
        {"-Dx='open", std::nullopt},
        {"-ea \"", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(splitJvmOptions(c.text), c.options) << c.text;
    }
    const struct {
        Options options;
        bool debugMode;
        const char* refused;
    } reserved[] = {
        {{"-ea", "-cp", "x"}, false, "-cp"},
        {{"-classpath"}, false, "-classpath"},
        {{"--class-path"}, false, "--class-path"},
        {{"--class-path=x"}, false, "--class-path=x"},
        {{"-Djava.class.path=x"}, false, "-Djava.class.path=x"},
        {{"-Djava.class.paths=x", "-cpx", "-agentlib:jdwp=transport=dt_socket"}, false, nullptr},
        {{"-agentlib:jdwp=transport=dt_socket"}, true, "-agentlib:jdwp=transport=dt_socket"},
        {{"-agentlib:jdwpx", "-Xrunjdwp:transport=dt_socket"},
         true,
         "-Xrunjdwp:transport=dt_socket"},
    };
    for (const auto& c : reserved) {
        const std::string* refused = findReservedJvmOption(c.options, c.debugMode);
        EXPECT_EQ(refused == nullptr ? "" : *refused, c.refused == nullptr ? "" : c.refused)
            << c.options.front();
    }
}

}  // namespace
