#include "LauncherTesting.h"

namespace fs = std::filesystem;

// Initialize is the caller's duty: a command before it is refused with a text of its own. The
// search only binds the library. Without the configuration library the variables still
// count, the first one unless empty: a directory without a JVM gives 002, naming the last
// candidate; a library without the invocation functions gives 003; the next Initialize tries
// again. A Calling library then adopts the JVM it lives in as it is: no second one, the host's
// class path (a load-library entry shows in the runtime info only), and the thread attached as a
// daemon, so that the Java program can still end.
TEST(Adoption, CallingAdoptsTheJvmItLivesInOnceTheSearchFindsALibrary) {
    const InstallationCopy copy;
    JavaVM* host = createHostJvm(copy.jar);
    ASSERT_TRUE(fs::remove(fs::path(copy.library).parent_path() / "libConfigs.so"));
    IReceiver* receiver = copy.receiver(RuntimeOperationMode::Calling, false);
    EXPECT_THAT(sendFailure(receiver, javaCommand("early")),
                StartsWith("JVM Launcher: Exception code 044. Initialize must run before the "
                           "first command that needs the JVM\nRUNTIME INFO:\n"));
    setenv("OSTRELINK_JVM_RUNTIME_PATH", "", 1);
    setenv("JAVA_HOME", copy.directory.c_str(), 1);
    EXPECT_THAT(failureOf([&] { receiver->Initialize(2, 8, 0); }),
                testing::AllOf(StartsWith("JVM Launcher: Exception code 002. \nCheck JRE"),
                               testing::EndsWith(": " + copy.directory + "/lib/server/libjvm.so")));
    setenv("OSTRELINK_JVM_RUNTIME_PATH", copy.library.c_str(), 1);
    EXPECT_THAT(failureOf([&] { receiver->Initialize(2, 8, 0); }),
                StartsWith("JVM Launcher: Exception code 003. \nCheck JRE installation."));
    setenv("OSTRELINK_JVM_RUNTIME_PATH", jvmLibrary.c_str(), 1);
    ASSERT_EQ(receiver->Initialize(2, 8, 0), 0);
    EXPECT_EQ(sendAndRead(receiver, makeMessage(2, 1, testJar("probe"))), acknowledgeBytes());
    EXPECT_THAT(textOf(sendAndRead(receiver, javaCommand("threads"))), testing::EndsWith(" true"));
    EXPECT_EQ(runningJvms(), std::vector<JavaVM*>{host});
    EXPECT_EQ(runtimeInfo(receiver), "Loaded custom libraries:\n" + testJar("probe") +
                                         "\n\njava.class.path=" + copy.jar + "\n" + nativeInfo);
}
