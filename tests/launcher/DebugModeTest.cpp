#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "LauncherTesting.h"

// Debug mode: the switch is read at construction and Initialize announces the debugger port. A
// busy port would make the JDWP agent end the process: the start is refused instead, and the
// next command checks again. Once the port is free the JVM gets the six options in order and
// waits for a debugger before the first command goes on.
TEST(DebugMode, AddsItsOptionsInOrderAndWaitsForADebuggerOnAFreePort) {
    setenv("OSTRELINK_DEBUG_MODE", "TrUe", 1);
    const sockaddr_in port = {AF_INET, htons(8988), {htonl(INADDR_LOOPBACK)}, {}};
    const auto address = reinterpret_cast<const sockaddr*>(&port);
    const int occupant = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind(occupant, address, sizeof(port)), 0);
    const InstallationCopy copy;
    testing::internal::CaptureStdout();
    IReceiver* receiver = copy.receiver();
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                StartsWith("OSTRELINK_DEBUG_MODE found: TrUe\nJvm Launcher: Debug mode enabled. "
                           "Listening on port 8988. Waiting for debugger to attach...\n"));
    EXPECT_THAT(sendFailure(receiver, javaCommand("x")),
                StartsWith("JVM Launcher: Exception code 047. Debug mode needs port 8988"));
    close(occupant);

    // A debugger: the handshake, then VirtualMachine.Resume (length 11, id 1, flags 0, command
    // set 1, command 9), which lets the suspended JVM go on.
    const int debugger = socket(AF_INET, SOCK_STREAM, 0);
    std::thread resume([debugger, address] {
        for (int i = 0; i < 1000 && connect(debugger, address, sizeof(sockaddr_in)) != 0; ++i) {
            usleep(20000);
        }
        char bytes[] = "JDWP-Handshake\0\0\0\13\0\0\0\1\0\1\11";
        ASSERT_EQ(send(debugger, bytes, 25, 0), 25) << "no JDWP server on 127.0.0.1:8988";
        EXPECT_EQ(recv(debugger, bytes, 25, MSG_WAITALL), 25);
    });
    const Bytes options = sendAndRead(receiver, javaCommand("jvm-arguments"));
    resume.join();
    close(debugger);
    EXPECT_THAT(textOf(options), testing::EndsWith("/jre/lib\n-Xmx2048m\n-Xms2048m\n-Xdebug\n"
                                                   "-Xrunjdwp:transport=dt_socket,address="
                                                   "127.0.0.1:8988,server=y,suspend=y\n"
                                                   "-verbose:jni\n-Xcheck:jni"));
}
