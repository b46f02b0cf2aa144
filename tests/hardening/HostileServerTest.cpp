// ostrelink-server against a thousand clients misbehaving at once. (Random bytes and cut frames
// are the framing fuzzer's; one garbage client, one stalled client, one oversize frame and the
// connection limit are in tests/standins.) Through it all a well-behaved client must keep
// getting its answers, and the server must stop cleanly afterwards.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "NetworkTestSupport.h"

namespace {

// Round trips of a health check and of a payload echoed by Java in the server process.
void expectServed(ServerProcess& server, const std::string& when) {
    auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes()) << when;
    const Bytes echo = makeMessage(2, 0, "served " + when);
    EXPECT_EQ(roundTrip(*client, echo), echo) << when;
}

// The sockets of the misbehaving clients, closed at the end of scope: half of them with an RST
// (linger of 0), the rest with an orderly close.
struct Connections : std::vector<int> {
    ~Connections() {
        const linger abort{1, 0};
        for (std::size_t index = 0; index < size(); ++index) {
            if (index % 2 == 0) {
                ::setsockopt((*this)[index], SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
            }
            ::close((*this)[index]);
        }
    }
};

TEST(HostileClients, AThousandConnectionsMisbehavingAtOnceDoNotStopAWellBehavedClient) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(4096, limit.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ServerProcess server(
        {"--port", "0", "--max-connections", "1200", "--idle-timeout-ms", "60000"});
    expectServed(server, "before");
    {
        Connections connections;
        for (int index = 0; index < 1000; ++index) {
            connections.push_back(connectRaw(server.port()));
            ASSERT_GE(connections.back(), 0) << "connection " << index;
        }
        // Every connection is accepted once a later one is served.
        expectServed(server, "while a thousand connections are open");
        const long residentKiB = server.residentKiB();
        // A quarter each: silent, garbage, a frame of 1 MiB that stops after 3 bytes, a frame
        // longer than it says.
        const Bytes misdeeds[] = {{},
                                  {0xDE, 0xAD, 0xBE, 0xEF, 0, 1},
                                  {0, 0x10, 0, 0, 1, 2, 3},
                                  {0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0}};
        for (std::size_t index = 0; index < connections.size(); ++index) {
            writeRaw(connections[index], misdeeds[index % 4]);
        }
        expectServed(server, "while they misbehave");
        // Memory follows the bytes that arrived: reserving the 250 announced MiB would show here.
        EXPECT_LT(server.residentKiB() - residentKiB, 64 * 1024);
    }
    expectServed(server, "after the thousand connections closed");
    // Once Java has run in the server, the JVM's own SIGTERM handler may end it (status 143)
    // before the server's orderly stop (status 0); either way it ends by exiting, not by a crash.
    const int status = server.stop();
    EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 143))
        << "status " << status;
}

}  // namespace
