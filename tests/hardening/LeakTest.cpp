// Every kind of command, many times over, in a child process run with -Xcheck:jni: no wrong
// outcome, no growth of the heap (LeakSanitizer in sanitizer builds), and not one warning of
// the JNI checker, which reports leaked local references and calls made with an exception
// pending.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

using testing::HasSubstr;
using testing::Not;

namespace {

struct Outcome {
    int status;
    std::string output;
};

// Runs the probe with its standard output and error in one file.
Outcome runProbe(const std::string& rounds) {
    const std::string outputPath =
        std::string(OSTRELINK_TEST_BINARY_DIR) + "/leak-probe-" + std::to_string(::getpid());
    const int output = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const char* probe = LEAK_PROBE_EXECUTABLE;
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(output, STDOUT_FILENO);
        ::dup2(output, STDERR_FILENO);
        ::execl(probe, probe, rounds.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(output);
    int status = 0;
    ::waitpid(child, &status, 0);
    std::stringstream text;
    text << std::ifstream(outputPath).rdbuf();
    std::remove(outputPath.c_str());
    return {status, text.str()};
}

TEST(LeakCheck, EveryCommandKindRepeatedUnderTheJniCheckerLeaksNothing) {
    ::setenv("JAVA_TOOL_OPTIONS", "-Xcheck:jni", 1);
    const Outcome outcome = runProbe("4000");
    EXPECT_TRUE(WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 0)
        << "status " << outcome.status << "\n"
        << outcome.output;
    EXPECT_THAT(outcome.output, HasSubstr("Picked up JAVA_TOOL_OPTIONS: -Xcheck:jni"));
    EXPECT_THAT(outcome.output, HasSubstr("4000 rounds, 0 wrong outcomes"));
    EXPECT_THAT(outcome.output, Not(HasSubstr("WARNING in native method")));
    EXPECT_THAT(outcome.output, Not(HasSubstr("JNI local refs")));
    EXPECT_THAT(outcome.output, Not(HasSubstr("FATAL ERROR in native method")));
    EXPECT_THAT(outcome.output, Not(HasSubstr("LeakSanitizer")));
}

}  // namespace
