#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "LauncherTesting.h"

using testing::StartsWith;

namespace {

// Initialize is the caller's duty: a command before it is refused with a text of its own, and the
// start is tried again once Initialize has run. Before the start the native part answers alone.
// The JVM gets the library path and then
// OSTRELINK_JVM_OPTIONS, split with quotes grouping (a debug switch that is not "true" in some
// case adds nothing); commands reach sendCommand and heart beats heartBeat; and the threads keep
// their attachment as the JVM found them: the starting thread and a thread attached by the host
// stay attached, a thread the JVM has never seen is attached for its command or query only.
TEST(JavaCall, EachCommandTakesItsRoadAndLeavesEachThreadAsItWas) {
    setEnvironment("OSTRELINK_JVM_OPTIONS", "-Xmx64m -Dprobe.value='a b'");
    setEnvironment("OSTRELINK_DEBUG_MODE", " true");
    const InstallationCopy copy;
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    EXPECT_THAT(sendFailure(receiver, javaCommand("early")),
                StartsWith("JVM Launcher: Exception code 044. Initialize must run before the "
                           "first command that needs the JVM\nRUNTIME INFO:\n"));
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_EQ(runtimeInfo(receiver), "\n" + nativeInfo());
    EXPECT_EQ(sendAndRead(receiver, healthCheckMessage()), acknowledgeBytes());
    EXPECT_TRUE(runningJvms().empty());
    // Command type 10, and 35 bytes: too short to hold the whole of "health_check".
    for (const Bytes& command :
         {javaCommand("echo me"), makeMessage(2, 10, "x"), javaCommand("health_chec")}) {
        EXPECT_EQ(sendAndRead(receiver, command), command);
    }
    // -Xcheck:jni comes first, from JAVA_TOOL_OPTIONS of the test environment.
    EXPECT_EQ(textOf(sendAndRead(receiver, javaCommand("jvm-arguments"))),
              std::string("-Xcheck:jni\n-Djava.library.path=") + OSTRELINK_JAVA_HOME +
                  "/lib:" + OSTRELINK_JAVA_HOME + "/jre/lib\n-Xmx64m\n-Dprobe.value=a b");
    Bytes heartBeat = makeMessage(2, 11, "12");
    EXPECT_EQ(textOf(sendAndRead(receiver, heartBeat)), textOf(heartBeat) + "H");
    EXPECT_EQ(runtimeInfo(receiver),
              "\njava.class.path=" + copy.runtimeJarOnClassPath() + "\n" + nativeInfo());
    const auto jvms = runningJvms();
    ASSERT_EQ(jvms.size(), 1U);
    EXPECT_EQ(attachState(jvms[0]), JNI_OK);
    std::thread([&] {
        EXPECT_EQ(attachState(jvms[0]), JNI_EDETACHED);
        EXPECT_EQ(sendAndRead(receiver, javaCommand("foreign")), javaCommand("foreign"));
        EXPECT_EQ(attachState(jvms[0]), JNI_EDETACHED);
        EXPECT_THAT(runtimeInfo(receiver), StartsWith("\njava.class.path="));
        void* env = nullptr;
        ASSERT_EQ(jvms[0]->AttachCurrentThread(&env, nullptr), JNI_OK);
        EXPECT_EQ(sendAndRead(receiver, javaCommand("attached")), javaCommand("attached"));
        EXPECT_EQ(attachState(jvms[0]), JNI_OK);
        jvms[0]->DetachCurrentThread();
    }).join();
}

// Every thread sends its first command at the same moment: the JVM is started once (a second
// start would fail with code 035), and every reply goes back to the thread that asked for it.
TEST(JavaCall, ThreadsThatStartTogetherShareOneJvmAndKeepTheirOwnReplies) {
    const InstallationCopy copy;
    IReceiver* receiver = copy.receiver();
    std::atomic<int> ready{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (++ready; ready.load() < 6;) {
                std::this_thread::yield();
            }
            for (int i = 0; i < 100; ++i) {
                const Bytes command = javaCommand(std::to_string(t) + " " + std::to_string(i));
                failures += sendAndRead(receiver, command) != command;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(runningJvms().size(), 1U);
}

// With OSTRELINK_KEEP_THREADS_ATTACHED (any case) a thread the JVM has never seen stays attached
// after its command, as a daemon, and is detached when it ends: the count of live Java threads
// comes back.
TEST(JavaCall, KeptThreadsStayAttachedAsDaemonsUntilTheyEnd) {
    setEnvironment("OSTRELINK_KEEP_THREADS_ATTACHED", "True");
    const InstallationCopy copy;
    IReceiver* receiver = copy.receiver();
    const std::string before = textOf(sendAndRead(receiver, javaCommand("threads")));
    std::thread([&] {
        const std::string during = std::to_string(std::stoi(before) + 1) + " true";
        EXPECT_EQ(textOf(sendAndRead(receiver, javaCommand("threads"))), during);
        EXPECT_EQ(attachState(runningJvms().at(0)), JNI_OK);
        EXPECT_EQ(textOf(sendAndRead(receiver, javaCommand("threads"))), during);
    }).join();
    EXPECT_EQ(textOf(sendAndRead(receiver, javaCommand("threads"))), before);
}

}  // namespace
