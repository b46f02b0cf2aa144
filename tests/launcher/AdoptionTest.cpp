#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LauncherTesting.h"

namespace {

// The JVM that runs is used as it is: no second one, the host's class path, and a load-library
// entry shows in the runtime info without reaching that class path.
TEST(Adoption, CalledAdoptsTheJvmTheHostCreated) {
    const InstallationCopy copy;
    JavaVM* host = createHostJvm(copy.root() + "/Binaries/Jvm/OstrelinkJvmRuntime.jar");
    IReceiver* receiver = copy.receiver();
    EXPECT_EQ(sendAndRead(receiver, makeMessage(2, 1, testJar("probe"))), acknowledgeBytes());
    EXPECT_EQ(sendAndRead(receiver, javaCommand("adopted")), javaCommand("adopted"));
    EXPECT_EQ(runningJvms(), std::vector<JavaVM*>{host});
    EXPECT_EQ(runtimeInfo(receiver), "Loaded custom libraries:\n" + testJar("probe") +
                                         "\n\njava.class.path=" + copy.root() +
                                         "/Binaries/Jvm/OstrelinkJvmRuntime.jar\n" + nativeInfo());
}

// A Calling library adopts the JVM it lives in, at Initialize and again at the first command,
// and attaches the thread as a daemon, so that the Java program can still end. Extra JVM
// options can't reach that JVM: it says so, once.
TEST(Adoption, CallingAdoptsTheJvmItLivesIn) {
    const InstallationCopy copy;
    JavaVM* host = createHostJvm(copy.root() + "/Binaries/Jvm/OstrelinkJvmRuntime.jar");
    setEnvironment("OSTRELINK_JVM_OPTIONS", "-Xmx64m");
    testing::internal::CaptureStderr();
    IReceiver* receiver = copy.receiver(RuntimeOperationMode::Calling);
    EXPECT_THAT(textOf(sendAndRead(receiver, javaCommand("threads"))), testing::EndsWith(" true"));
    const std::string errors = testing::internal::GetCapturedStderr();
    const auto note = errors.find("OSTRELINK_JVM_OPTIONS is ignored");
    EXPECT_NE(note, std::string::npos);
    EXPECT_EQ(errors.find("OSTRELINK_JVM_OPTIONS is ignored", note + 1), std::string::npos);
    EXPECT_EQ(runningJvms(), std::vector<JavaVM*>{host});
}

}  // namespace
