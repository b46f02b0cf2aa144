#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "LauncherTesting.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class JavaCall : public testing::Test {
protected:
    void SetUp() override {
        receiver = copy.createReceiver(RuntimeOperationMode::Called);
        ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    }

    InstallationCopy copy{testJar("probe")};
    IReceiver* receiver = nullptr;
};

TEST_F(JavaCall, CommandGoesToSendCommandAndHeartBeatToHeartBeat) {
    const Bytes command = javaCommand("echo me");
    EXPECT_EQ(sendAndRead(receiver, command), command);

    Bytes heartBeat = makeMessage(2, 11, "12");
    Bytes expected = heartBeat;
    expected.push_back('H');
    EXPECT_EQ(sendAndRead(receiver, heartBeat), expected);
}

TEST_F(JavaCall, CommandTypeTenAndAPlainCommandThatIsNoHealthCheckReachJava) {
    const Bytes exceptionType = makeMessage(2, 10, "x");
    EXPECT_EQ(sendAndRead(receiver, exceptionType), exceptionType);
    // 35 bytes: too short to hold the whole of "health_check".
    const Bytes almost = javaCommand("health_chec");
    EXPECT_EQ(sendAndRead(receiver, almost), almost);
}

// Every thread sends its first command at the same moment: the JVM is started once (a second
// start would fail with code 035), and every reply goes back to the thread that asked for it.
TEST_F(JavaCall, ThreadsThatStartTogetherShareOneJvmAndKeepTheirOwnReplies) {
    constexpr int threadCount = 6;
    constexpr int commandsPerThread = 200;
    std::atomic<int> ready{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < threadCount) {
                std::this_thread::yield();
            }
            try {
                for (int i = 0; i < commandsPerThread; ++i) {
                    const Bytes command = javaCommand("thread " + std::to_string(t) + " command " +
                                                      std::to_string(i));
                    if (sendAndRead(receiver, command) != command) {
                        ++failures;
                    }
                }
            } catch (const std::exception& exception) {
                ADD_FAILURE() << exception.what();
                ++failures;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(runningJvms().size(), 1U);
}

TEST_F(JavaCall, AThreadTheJvmHasNeverSeenIsAttachedForItsCommandOnly) {
    sendAndRead(receiver, javaCommand("start"));
    const auto jvms = runningJvms();
    ASSERT_EQ(jvms.size(), 1U);
    std::thread foreign([&] {
        EXPECT_EQ(threadAttachState(jvms[0]), JNI_EDETACHED);
        const Bytes command = javaCommand("foreign");
        EXPECT_EQ(sendAndRead(receiver, command), command);
        EXPECT_EQ(threadAttachState(jvms[0]), JNI_EDETACHED);
    });
    foreign.join();
}

// With OSTRELINK_KEEP_THREADS_ATTACHED (any case) such a thread stays attached after its command,
// as a daemon, and is detached when it ends: the count of live Java threads comes back.
class KeptThreads : public JavaCall {
protected:
    void SetUp() override {
        setEnvironment("OSTRELINK_KEEP_THREADS_ATTACHED", "True");
        JavaCall::SetUp();
    }
    // The probe's answer: live Java threads, and whether the calling thread is a daemon.
    std::string threads() {
        const Bytes reply = sendAndRead(receiver, javaCommand("threads"));
        return std::string(reply.begin(), reply.end());
    }
};

TEST_F(KeptThreads, AThreadTheJvmHasNeverSeenStaysAttachedAsADaemonUntilItEnds) {
    const std::string before = threads();
    const auto jvms = runningJvms();
    ASSERT_EQ(jvms.size(), 1U);
    const int count = std::stoi(before);
    std::thread foreign([&] {
        EXPECT_EQ(threads(), std::to_string(count + 1) + " true");
        EXPECT_EQ(threadAttachState(jvms[0]), JNI_OK);
        EXPECT_EQ(threads(), std::to_string(count + 1) + " true");
    });
    foreign.join();
    EXPECT_EQ(threads(), before);
}

TEST_F(JavaCall, AThreadThatWasAttachedStaysAttached) {
    sendAndRead(receiver, javaCommand("start"));
    const auto jvms = runningJvms();
    ASSERT_EQ(jvms.size(), 1U);
    std::thread attached([&] {
        void* env = nullptr;
        ASSERT_EQ(jvms[0]->AttachCurrentThread(&env, nullptr), JNI_OK);
        const Bytes command = javaCommand("attached");
        EXPECT_EQ(sendAndRead(receiver, command), command);
        EXPECT_EQ(threadAttachState(jvms[0]), JNI_OK);
        jvms[0]->DetachCurrentThread();
    });
    attached.join();
}

// The thread that started the JVM stays attached for the life of the process.
TEST_F(JavaCall, TheStartingThreadStaysAttached) {
    sendAndRead(receiver, javaCommand("start"));
    const auto jvms = runningJvms();
    ASSERT_EQ(jvms.size(), 1U);
    EXPECT_EQ(threadAttachState(jvms[0]), JNI_OK);
}

TEST_F(JavaCall, HealthCheckAndLoadLibraryLeaveTheJvmUnstarted) {
    EXPECT_EQ(sendAndRead(receiver, healthCheckMessage()), acknowledgeBytes());
    EXPECT_EQ(sendAndRead(receiver, loadLibraryCommand(testJar("custom-first"))),
              acknowledgeBytes());
    EXPECT_TRUE(runningJvms().empty());
}

// The managed part comes from the receiver class; the native part is last, with no final end of
// line; with no custom library the text begins with an empty line.
TEST_F(JavaCall, RuntimeInfoOfARunningJvmPieceByPiece) {
    sendAndRead(receiver, javaCommand("start"));
    EXPECT_EQ(runtimeInfo(receiver),
              "\njava.class.path=" + copy.runtimeJarOnClassPath() +
                  "\nJVM Native Launcher Runtime Info: \nJVM shared library search path: " +
                  realJvmLibrary());
}

TEST_F(JavaCall, RuntimeInfoBeforeTheJvmHasNoManagedPart) {
    EXPECT_EQ(runtimeInfo(receiver),
              "\nJVM Native Launcher Runtime Info: \nJVM shared library search path: " +
                  realJvmLibrary());
}

// The query runs on a thread of its own, which the JVM has never seen: attached for the query,
// detached after it.
TEST_F(JavaCall, RuntimeInfoQueryLeavesAForeignThreadDetached) {
    sendAndRead(receiver, javaCommand("start"));
    const auto jvms = runningJvms();
    ASSERT_EQ(jvms.size(), 1U);
    std::thread foreign([&] {
        unsigned char buffer[1];
        EXPECT_THAT(failureOf([&] { receiver->ReadResponse(buffer, 1); }),
                    HasSubstr("java.class.path="));
        EXPECT_EQ(threadAttachState(jvms[0]), JNI_EDETACHED);
    });
    foreign.join();
}

TEST(JavaCallModes, CallingModeWithoutAJvmAnswers050AndStillServesTheNativeCommands) {
    const InstallationCopy copy(testJar("probe"));
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Calling);
    ASSERT_EQ(receiver->Initialize(2, 8, 0), 0);
    for (int i = 0; i < 2; ++i) {
        Bytes command = javaCommand("needs java");
        EXPECT_THAT(failureOf([&] {
                        receiver->SendCommand(command.data(), static_cast<int>(command.size()));
                    }),
                    StartsWith("JVM Launcher: Exception code 050. JVM not initialized\nRUNTIME "
                               "INFO:\n\nJVM Native Launcher Runtime Info: \n"));
    }
    EXPECT_EQ(sendAndRead(receiver, healthCheckMessage()), acknowledgeBytes());
    EXPECT_EQ(sendAndRead(receiver, loadLibraryCommand(testJar("custom-first"))),
              acknowledgeBytes());
    EXPECT_TRUE(runningJvms().empty());
}

// Initialize is the caller's duty; a command before it is refused with a text of its own, and
// the start is tried again once Initialize has run.
TEST(JavaCallModes, ACommandBeforeInitializeGets044ThenWorksAfterIt) {
    const InstallationCopy copy(testJar("probe"));
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    Bytes command = javaCommand("too early");
    EXPECT_THAT(
        failureOf([&] { receiver->SendCommand(command.data(), static_cast<int>(command.size())); }),
        StartsWith("JVM Launcher: Exception code 044. Initialize must run before the first "
                   "command that needs the JVM\nRUNTIME INFO:\n"));
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_EQ(sendAndRead(receiver, command), command);
}

}  // namespace
