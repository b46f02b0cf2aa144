#include "LauncherTesting.h"

// A Calling library adopts the JVM it lives in as it is: no second one, the host's class path
// (a load-library entry shows in the runtime info only), and the thread attached as a daemon, so
// that the Java program can still end. Extra JVM options can't reach that JVM: it says so, once.
TEST(Adoption, CallingAdoptsTheJvmItLivesIn) {
    const InstallationCopy copy;
    JavaVM* host = createHostJvm(copy.jar());
    setenv("OSTRELINK_JVM_OPTIONS", "-Xmx64m", 1);
    testing::internal::CaptureStderr();
    IReceiver* receiver = copy.receiver(RuntimeOperationMode::Calling);
    EXPECT_EQ(sendAndRead(receiver, makeMessage(2, 1, testJar("probe"))), acknowledgeBytes());
    EXPECT_THAT(textOf(sendAndRead(receiver, javaCommand("threads"))), testing::EndsWith(" true"));
    const std::string errors = testing::internal::GetCapturedStderr();
    const auto note = errors.find("OSTRELINK_JVM_OPTIONS is ignored");
    EXPECT_TRUE(note != std::string::npos &&
                note == errors.rfind("OSTRELINK_JVM_OPTIONS is ignored"))
        << errors;
    EXPECT_EQ(runningJvms(), std::vector<JavaVM*>{host});
    EXPECT_EQ(runtimeInfo(receiver), "Loaded custom libraries:\n" + testJar("probe") +
                                         "\n\njava.class.path=" + copy.jar() + "\n" + nativeInfo);
}
