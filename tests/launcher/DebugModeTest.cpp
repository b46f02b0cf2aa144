#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "LauncherTesting.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// Stands in for a debugger on the JDWP port: the handshake, then VirtualMachine.Resume, which
// lets the suspended JVM go on. The connection stays open in connection until the test ends.
void resumeSuspendedJvm(int& connection) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(8988);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        connection = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
            break;
        }
        close(connection);
        connection = -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_NE(connection, -1) << "no JDWP server on 127.0.0.1:8988";
    const std::string handshake = "JDWP-Handshake";
    ASSERT_EQ(send(connection, handshake.data(), handshake.size(), 0),
              static_cast<ssize_t>(handshake.size()));
    std::string answer(handshake.size(), '\0');
    ASSERT_EQ(recv(connection, answer.data(), answer.size(), MSG_WAITALL),
              static_cast<ssize_t>(answer.size()));
    ASSERT_EQ(answer, handshake);
    // length 11, id 1, flags 0, command set 1 (VirtualMachine), command 9 (Resume)
    const unsigned char resume[] = {0, 0, 0, 11, 0, 0, 0, 1, 0, 1, 9};
    ASSERT_EQ(send(connection, resume, sizeof(resume), 0), static_cast<ssize_t>(sizeof(resume)));
    unsigned char reply[11];
    EXPECT_EQ(recv(connection, reply, sizeof(reply), MSG_WAITALL),
              static_cast<ssize_t>(sizeof(reply)));
}

// Debug mode: the switch is read at construction, Initialize announces the debugger port, and
// the JVM gets the eight options in order and waits for a debugger before the first command
// goes on.
TEST(JvmStart, DebugModeAddsItsOptionsInOrderAndWaitsForADebugger) {
    setEnvironment("OSTRELINK_DEBUG_MODE", "TrUe");
    const InstallationCopy copy(testJar("probe"));
    testing::internal::CaptureStdout();
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_THAT(output, StartsWith("OSTRELINK_DEBUG_MODE found: TrUe\n"));
    EXPECT_THAT(output, HasSubstr("Jvm Launcher: Debug mode enabled. Listening on port 8988. "
                                  "Waiting for debugger to attach...\n"));
    int connection = -1;
    std::thread debugger([&connection] { resumeSuspendedJvm(connection); });
    const auto options = jvmOptions(receiver);
    debugger.join();
    close(connection);
    EXPECT_THAT(options,
                ElementsAre(libraryPathOption(), "-Xmx2048m", "-Xms2048m", "-Xdebug",
                            "-Xrunjdwp:transport=dt_socket,address=127.0.0.1:8988,server=y,"
                            "suspend=y",
                            "-verbose:jni", "-Xcheck:jni"));
}

// A busy debug port would make the JDWP agent end the process: the start is refused instead, the
// process goes on, and no JVM is made.
TEST(JvmStart, DebugModeWithTheDebugPortTakenIsRefusedBeforeTheStart) {
    setEnvironment("OSTRELINK_DEBUG_MODE", "true");
    const int occupant = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(8988);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(occupant, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(occupant, 1), 0);
    const InstallationCopy copy(testJar("probe"));
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    Bytes command = javaCommand("never answered");
    EXPECT_THAT(
        failureOf([&] { receiver->SendCommand(command.data(), static_cast<int>(command.size())); }),
        AllOf(StartsWith("JVM Launcher: Exception code 047. "), HasSubstr("8988")));
    EXPECT_TRUE(runningJvms().empty());
    close(occupant);
}

}  // namespace
