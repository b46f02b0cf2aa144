#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "LauncherTesting.h"

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

// The JVM refuses an unknown -XX option with JNI_EINVAL: the failure is raised on the launch
// thread and reaches the caller as the exception it is, the process goes on, and the next command
// tries the start again.
TEST(JvmStart, AFailedCreateReachesTheCallerAsCode036) {
    setEnvironment("JAVA_TOOL_OPTIONS", "-XX:+NoSuchOptionForThisTest");
    const InstallationCopy copy(testJar("probe"));
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    Bytes command = javaCommand("never answered");
    const std::string expected =
        "JVM Launcher: Exception code 036\nRUNTIME INFO:\n\nJVM Native Launcher Runtime Info: "
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
