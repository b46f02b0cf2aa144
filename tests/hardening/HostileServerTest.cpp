// ostrelink-server against clients that misbehave in bulk: a thousand connections at once.
// (Random bytes and cut frames are the framing fuzzer's.) Through it all a well-behaved client must
// keep getting its answers, and the server must stop cleanly afterwards. (One garbage client,
// one stalled client, one oversize frame and the connection limit are in tests/standins.)

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "NetworkTestSupport.h"
#include "hardening/HardeningSupport.h"

namespace {

// Round trips of a health check and of a payload echoed by Java in the server process.
void expectServed(ServerProcess& server, const char* when) {
    auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes()) << when;
    const Bytes echo = makeMessage(2, 0, std::string("served ") + when);
    EXPECT_EQ(roundTrip(*client, echo), echo) << when;
}

// Once Java has run in the server, the JVM's own SIGTERM handler may end it (status 143) before
// the server's orderly stop (status 0); either way it ends by exiting, not by a crash.
void expectStopsCleanly(ServerProcess& server) {
    const int status = server.stop();
    EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 143))
        << "status " << status;
}

TEST(HostileClients, AThousandConnectionsMisbehavingAtOnceDoNotStopAWellBehavedClient) {
    raiseDescriptorLimit(4096);
    ServerProcess server(
        {"--port", "0", "--max-connections", "1200", "--idle-timeout-ms", "60000"});
    expectServed(server, "before");

    std::vector<RawConnection> connections;
    connections.reserve(1000);
    for (int index = 0; index < 1000; ++index) {
        connections.emplace_back(connectRaw(server.port()));
        ASSERT_TRUE(connections.back().valid()) << "connection " << index;
    }
    // Every connection is accepted once a later one is served.
    expectServed(server, "while a thousand connections are open");
    const long residentKiB = server.residentKiB();
    // A quarter each: silent, garbage, a frame of 1 MiB that stops after 3 bytes, a frame longer
    // than it says.
    for (std::size_t index = 0; index < connections.size(); ++index) {
        const int fd = connections[index].fd();
        switch (index % 4) {
            case 0:
                break;
            case 1:
                sendBytes(fd, {0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0x01});
                break;
            case 2:
                sendBytes(fd, {0, 0x10, 0, 0, 1, 2, 3});
                break;
            default:
                sendBytes(fd, {0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0});
                break;
        }
    }
    expectServed(server, "while they misbehave");
    // Memory follows the bytes that arrived: reserving the 250 announced MiB would show here.
    EXPECT_LT(server.residentKiB() - residentKiB, 64 * 1024);

    // Half of them vanish with a reset, the rest with an orderly close.
    for (std::size_t index = 0; index < connections.size(); ++index) {
        if (index % 2 == 0) {
            connections[index].reset();
        }
    }
    connections.clear();
    expectServed(server, "after the thousand connections closed");
    expectStopsCleanly(server);
}

}  // namespace
