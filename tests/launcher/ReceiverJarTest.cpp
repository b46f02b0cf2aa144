#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "LauncherTesting.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

const std::string nativePartStart = "JVM Native Launcher Runtime Info: \n";

// Each receiver jar stands in place of the runtime jar of an installation copy.
struct ReceiverJar {
    explicit ReceiverJar(const std::string& jar) : copy(testJar(jar)) {
        receiver = copy.createReceiver(RuntimeOperationMode::Called);
        EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);
    }

    std::string commandFailure(const std::string& payload = "command") {
        Bytes command = javaCommand(payload);
        return failureOf(
            [&] { receiver->SendCommand(command.data(), static_cast<int>(command.size())); });
    }

    InstallationCopy copy;
    IReceiver* receiver = nullptr;
};

std::string reinstall(const char* code) {
    return std::string("JVM Launcher: Exception code ") + code +
           ". \nReinstall Ostrelink package\nRUNTIME INFO:\n\n" + nativePartStart;
}

// A start that fails half way gives no managed part, and the next command tries again: it then
// adopts the JVM that the first try created, and fails the same way.
TEST(ReceiverJarFailures, ARuntimeJarWithoutTheReceiverClassGives022OnEveryCommand) {
    ReceiverJar jar("custom-first");
    EXPECT_THAT(jar.commandFailure(), StartsWith(reinstall("022")));
    EXPECT_THAT(jar.commandFailure(), StartsWith(reinstall("022")));
    EXPECT_EQ(runningJvms().size(), 1U);
    EXPECT_EQ(sendAndRead(jar.receiver, healthCheckMessage()), acknowledgeBytes());
}

TEST(ReceiverJarFailures, AReceiverWithoutSendCommandGives024) {
    ReceiverJar jar("nosendcommand");
    EXPECT_THAT(jar.commandFailure(), StartsWith(reinstall("024")));
}

TEST(ReceiverJarFailures, AReceiverWithoutHeartBeatGives025) {
    ReceiverJar jar("noheartbeat");
    EXPECT_THAT(jar.commandFailure(), StartsWith(reinstall("025")));
}

TEST(ReceiverJarFailures, AReceiverWithoutGetRuntimeInfoGives026) {
    ReceiverJar jar("noruntimeinfo");
    EXPECT_THAT(jar.commandFailure(), StartsWith(reinstall("026")));
}

// The receiver throws in sendCommand and in getRuntimeInfo: the failure text carries no managed
// part, the query ends, the earlier reply stays, and nothing is left pending, so the next
// command on the thread works.
TEST(ReceiverJarFailures, AJavaExceptionGives055AndLeavesTheThreadUsable) {
    ReceiverJar jar("throwing");
    Bytes healthCheck = healthCheckMessage();
    ASSERT_EQ(jar.receiver->SendCommand(healthCheck.data(), static_cast<int>(healthCheck.size())),
              17);
    EXPECT_EQ(jar.commandFailure(),
              "JVM Launcher: Exception code 055. JVM exception occurred\nRUNTIME INFO:\n\n" +
                  nativePartStart + "JVM shared library search path: " + realJvmLibrary());
    Bytes reply(17, 0);
    EXPECT_EQ(jar.receiver->ReadResponse(reply.data(), 17), 0);
    EXPECT_EQ(reply, acknowledgeBytes());
    const Bytes heartBeat = makeMessage(2, 11, "12");
    EXPECT_EQ(sendAndRead(jar.receiver, heartBeat), heartBeat);
    EXPECT_THAT(jar.commandFailure(), StartsWith("JVM Launcher: Exception code 055."));
}

TEST(ReceiverJarFailures, ANullReplyGives056AndANullRuntimeInfoIsNoManagedPart) {
    ReceiverJar jar("nullreply");
    EXPECT_EQ(jar.commandFailure(),
              "JVM Launcher: Exception code 056. Null response from JVM\nRUNTIME INFO:\n\n" +
                  nativePartStart + "JVM shared library search path: " + realJvmLibrary());
    const Bytes heartBeat = makeMessage(2, 11, "12");
    EXPECT_EQ(sendAndRead(jar.receiver, heartBeat), heartBeat);
}

// An empty reply is a reply: length 0, stored, read once. A managed text without a final end of
// line runs into the native part.
TEST(ReceiverJarReplies, AnEmptyArrayIsAReplyOfLengthZero) {
    ReceiverJar jar("emptyreply");
    Bytes command = javaCommand("empty");
    EXPECT_EQ(jar.receiver->SendCommand(command.data(), static_cast<int>(command.size())), 0);
    unsigned char buffer[1] = {0x77};
    EXPECT_EQ(jar.receiver->ReadResponse(buffer, 0), 0);
    EXPECT_EQ(buffer[0], 0x77);
    EXPECT_THAT(failureOf([&] { jar.receiver->ReadResponse(buffer, 1); }),
                StartsWith("JVM Launcher: Exception code 041."));
    EXPECT_THAT(runtimeInfo(jar.receiver),
                StartsWith("\nmanaged partJVM Native Launcher Runtime Info: \n"));
}

}  // namespace
