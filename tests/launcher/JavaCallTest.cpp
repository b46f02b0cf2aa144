#include "LauncherTesting.h"

// Before the start the native part answers alone. The JVM gets the library path and then
// OSTRELINK_JVM_OPTIONS, split with quotes grouping (a debug switch that is not "true" in some
// case adds nothing); commands reach sendCommand and heart beats heartBeat; and the threads keep
// their attachment as the JVM found them: the starting thread and a thread attached by the host
// stay attached, a thread the JVM has never seen is attached for its command only.
TEST(JavaCall, EachCommandTakesItsRoadAndLeavesEachThreadAsItWas) {
    setenv("OSTRELINK_JVM_OPTIONS", "-Xmx64m -Dprobe.value='a b'", 1);
    setenv("OSTRELINK_DEBUG_MODE", " true", 1);
    const InstallationCopy copy;
    IReceiver* receiver = copy.receiver();
    EXPECT_EQ(sendAndRead(receiver, healthCheckMessage()), acknowledgeBytes());
    EXPECT_TRUE(runningJvms().empty());
    // Command type 10, and 35 bytes: too short to hold the whole of "health_check".
    for (const Bytes& command :
         {javaCommand("echo me"), makeMessage(2, 10, "x"), javaCommand("health_chec")}) {
        EXPECT_EQ(sendAndRead(receiver, command), command);
    }
    // -Xcheck:jni comes first, from JAVA_TOOL_OPTIONS of the test environment, then the JVM's
    // hooks.
    EXPECT_EQ(textOf(sendAndRead(receiver, javaCommand("jvm-arguments"))),
              std::string("-Xcheck:jni\nexit\nabort\nvfprintf\n-Djava.library.path=") +
                  OSTRELINK_JAVA_HOME + "/lib:" + OSTRELINK_JAVA_HOME +
                  "/jre/lib\n-Xmx64m\n-Dprobe.value=a b");
    EXPECT_EQ(textOf(sendAndRead(receiver, makeMessage(2, 11, "12"))), "H");
    JavaVM* jvm = runningJvms().at(0);
    EXPECT_EQ(attachState(jvm), JNI_OK);
    std::thread([&] {
        EXPECT_EQ(sendAndRead(receiver, javaCommand("foreign")), javaCommand("foreign"));
        EXPECT_EQ(attachState(jvm), JNI_EDETACHED);
        void* env = nullptr;
        ASSERT_EQ(jvm->AttachCurrentThread(&env, nullptr), JNI_OK);
        EXPECT_EQ(sendAndRead(receiver, javaCommand("attached")), javaCommand("attached"));
        EXPECT_EQ(attachState(jvm), JNI_OK);
        jvm->DetachCurrentThread();
    }).join();
}

// Every thread sends its first command while the JVM starts: the JVM is started once (a second
// start would fail with code 035), and every reply goes back to the thread that asked for it.
// With OSTRELINK_KEEP_THREADS_ATTACHED (any case) a thread the JVM has never seen stays attached
// after its command, as a daemon, and is detached when it ends: the count of live Java threads
// comes back. A thread the host attached stays the host's: it may detach it between commands.
TEST(JavaCall, ThreadsThatStartTogetherShareOneJvmAndKeptThreadsStayAttachedUntilTheyEnd) {
    setenv("OSTRELINK_KEEP_THREADS_ATTACHED", "True", 1);
    const InstallationCopy copy;
    IReceiver* receiver = copy.receiver();
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) {
                const Bytes command = javaCommand(std::to_string(t * 1000 + i));
                EXPECT_EQ(sendAndRead(receiver, command), command);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(runningJvms().size(), 1U);
    const std::string before = textOf(sendAndRead(receiver, javaCommand("threads")));
    std::thread([&] {
        JavaVM* jvm = runningJvms().at(0);
        void* env = nullptr;
        ASSERT_EQ(jvm->AttachCurrentThread(&env, nullptr), JNI_OK);
        EXPECT_EQ(sendAndRead(receiver, javaCommand("hosted")), javaCommand("hosted"));
        jvm->DetachCurrentThread();
        const std::string during = std::to_string(std::stoi(before) + 1) + " true";
        EXPECT_EQ(textOf(sendAndRead(receiver, javaCommand("threads"))), during);
        EXPECT_EQ(attachState(jvm), JNI_OK);
    }).join();
    EXPECT_EQ(textOf(sendAndRead(receiver, javaCommand("threads"))), before);
}
