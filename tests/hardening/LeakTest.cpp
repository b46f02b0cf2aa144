// Every kind of command, many times over, in a child process run with -Xcheck:jni: no wrong
// outcome, no growth of the heap (LeakSanitizer in sanitizer builds), and not one warning of
// the JNI checker, which reports leaked local references and calls made with an exception
// pending.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "common/ChildProcess.h"

using testing::HasSubstr;
using testing::Not;

namespace {

TEST(LeakCheck, EveryCommandKindRepeatedUnderTheJniCheckerLeaksNothing) {
    const ChildRun run =
        runChild(LEAK_PROBE_EXECUTABLE, {"4000"}, {{"JAVA_TOOL_OPTIONS", "-Xcheck:jni"}},
                 OSTRELINK_TEST_BINARY_DIR);
    const std::string output = run.out + run.err;
    EXPECT_EQ(run.status, 0) << output;
    EXPECT_THAT(output, HasSubstr("Picked up JAVA_TOOL_OPTIONS: -Xcheck:jni"));
    EXPECT_THAT(output, HasSubstr("4000 rounds, 0 wrong outcomes"));
    for (const char* failure : {"WARNING in native method", "JNI local refs",
                                "FATAL ERROR in native method", "LeakSanitizer"}) {
        EXPECT_THAT(output, Not(HasSubstr(failure)));
    }
}

}  // namespace
