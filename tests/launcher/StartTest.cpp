#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "LauncherTesting.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

TEST(JvmStart, ACreatedJvmGetsTheLibraryPathAndNoOtherOption) {
    const InstallationCopy copy(testJar("probe"));
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_THAT(jvmOptions(receiver), ElementsAre(libraryPathOption()));
}

TEST(JvmStart, ADebugSwitchThatIsNotExactlyTrueIsPrintedAndOff) {
    setEnvironment("OSTRELINK_DEBUG_MODE", " true");
    const InstallationCopy copy(testJar("probe"));
    testing::internal::CaptureStdout();
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_THAT(output, StartsWith("OSTRELINK_DEBUG_MODE found:  true\n"));
    EXPECT_THAT(output, Not(HasSubstr("Debug mode enabled")));
    EXPECT_THAT(jvmOptions(receiver), ElementsAre(libraryPathOption()));
}

// OSTRELINK_JVM_OPTIONS follows the library's own options, split with quotes grouping, and Java
// sees the heap limit and the property.
TEST(JvmStart, ExtraOptionsFollowTheLibrarysOwnAndReachJava) {
    setEnvironment("OSTRELINK_JVM_OPTIONS", "-Xmx64m -Dprobe.value='a b'");
    const InstallationCopy copy(testJar("probe"));
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_THAT(jvmOptions(receiver),
                ElementsAre(libraryPathOption(), "-Xmx64m", "-Dprobe.value=a b"));
    const auto ask = [receiver](const std::string& question) {
        const Bytes reply = sendAndRead(receiver, javaCommand(question));
        return std::string(reply.begin(), reply.end());
    };
    EXPECT_EQ(ask("property probe.value"), "a b");
    EXPECT_LE(std::stoll(ask("max-memory")), 64LL << 20);
}

// The JVM refuses an option: the failure is raised on the launch thread and reaches the caller as
// the exception it is, naming the options of OSTRELINK_JVM_OPTIONS if any; the process goes on,
// and the next command tries the start again.
struct RejectedOption {
    const char* variable;
    const char* value;
    const char* failure;
};
class JvmStartRejected : public testing::TestWithParam<RejectedOption> {};

TEST_P(JvmStartRejected, FailsWithTheCodeOfTheResultAndTriesAgain) {
    setEnvironment(GetParam().variable, GetParam().value);
    const InstallationCopy copy(testJar("probe"));
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    Bytes command = javaCommand("never answered");
    const std::string expected = std::string(GetParam().failure) +
                                 "\nRUNTIME INFO:\n\nJVM Native Launcher Runtime Info: "
                                 "\nJVM shared library search path: " +
                                 realJvmLibrary();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(failureOf([&] {
                      receiver->SendCommand(command.data(), static_cast<int>(command.size()));
                  }),
                  expected);
    }
    EXPECT_TRUE(runningJvms().empty());
    EXPECT_EQ(sendAndRead(receiver, healthCheckMessage()), acknowledgeBytes());
}

INSTANTIATE_TEST_SUITE_P(
    JvmStart, JvmStartRejected,
    testing::Values(RejectedOption{"JAVA_TOOL_OPTIONS", "-XX:+NoSuchOptionForThisTest",
                                   "JVM Launcher: Exception code 036"},
                    RejectedOption{"OSTRELINK_JVM_OPTIONS", "-Xfoo -Dprobe.value='a b'",
                                   "JVM Launcher: Exception code 031\nJVM options from "
                                   "OSTRELINK_JVM_OPTIONS: [-Xfoo] [-Dprobe.value=a b]"}),
    [](const testing::TestParamInfo<RejectedOption>& row) { return row.param.variable; });

// What can't work is refused before a JVM is made, each with its code and what to change, and the
// next command checks again.
TEST(JvmStart, BadExtraOptionsAndAColonInTheInstallationPathAreRefusedBeforeTheStart) {
    const InstallationCopy copy(testJar("probe"), "ostrelink:launcher-");
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    const struct {
        const char* options;
        const char* code;
        std::string named;
    } cases[] = {
        {"-ea '-Dx=open", "046", "-ea '-Dx=open"},
        {"-ea -cp /elsewhere", "045", "-cp:"},
        {"-ea", "048", "':'"},
        {"", "048", ": " + copy.root() + "/\n"},
    };
    Bytes command = javaCommand("never answered");
    for (const auto& c : cases) {
        setEnvironment("OSTRELINK_JVM_OPTIONS", c.options);
        EXPECT_THAT(failureOf([&] {
                        receiver->SendCommand(command.data(), static_cast<int>(command.size()));
                    }),
                    AllOf(StartsWith(std::string("JVM Launcher: Exception code ") + c.code + ". "),
                          HasSubstr(c.named)))
            << c.options;
    }
    EXPECT_TRUE(runningJvms().empty());
}

// Only Called may create a JVM; a mode that is neither Called nor Calling finds none to adopt.
TEST(JvmStart, AModeThatMayNotCreateGets020WithoutAJvm) {
    const InstallationCopy copy(testJar("probe"));
    IReceiver* receiver = copy.createReceiver(static_cast<RuntimeOperationMode>(7));
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    Bytes command = javaCommand("no jvm");
    EXPECT_THAT(
        failureOf([&] { receiver->SendCommand(command.data(), static_cast<int>(command.size())); }),
        StartsWith("JVM Launcher: Exception code 020. Cannot get m_JvmEnv.\nReinstall "
                   "Ostrelink package\nRUNTIME INFO:\n"));
    EXPECT_TRUE(runningJvms().empty());
}

}  // namespace
