// ostrelink-server against a thousand clients misbehaving at once, and against peers too slow to
// finish a frame or a handshake. (Random bytes and cut frames
// are the framing fuzzer's; one garbage client, one stalled client, one oversize frame and the
// connection limit are in tests/standins.) Through it all a well-behaved client must keep
// getting its answers, and the server must stop cleanly afterwards.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
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

// Sends bytes, then zeros, one byte every 200 ms until the server closes the connection, for 15 s
// at most; how long that took.
std::chrono::milliseconds dripUntilClosed(unsigned short port, const Bytes& bytes) {
    const int fd = connectRaw(port);
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t index = 0; std::chrono::steady_clock::now() - begin < std::chrono::seconds(15);
         ++index) {
        const unsigned char byte = index < bytes.size() ? bytes[index] : 0;
        pollfd entry{fd, POLLIN, 0};
        unsigned char answer = 0;
        if (::send(fd, &byte, 1, MSG_NOSIGNAL) != 1 ||
            (::poll(&entry, 1, 200) > 0 && ::recv(fd, &answer, 1, 0) <= 0)) {
            break;
        }
    }
    ::close(fd);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 begin);
}

// A byte every 200 ms is well inside the idle time-out of 500 ms, so a peer dripping a frame or a
// TLS handshake would keep its place for ever if only each wait were bounded. The whole frame (from
// its first byte) and the whole handshake are; meanwhile a client waits for the only place and is
// served once the slow peer is gone.
TEST(HostileClients, APeerDrippingAFrameOrAHandshakeLosesItsPlaceToAWaitingClient) {
    const TestCertificates pki;
    ::setenv("OSTRELINK_TLS_CA_FILE", pki.caCert.c_str(), 1);
    ::setenv("OSTRELINK_NET_CONNECT_TIMEOUT_MS", "30000", 1);
    const struct {
        bool tls;
        Bytes start;  // a frame of 256 bytes; a TLS record of 512
        const char* logged;
    } slowPeers[] = {{false, {0, 0, 1, 0}, "frame not complete within 500 ms of its first byte"},
                     {true, {0x16, 3, 1, 2, 0}, "TLS handshake not finished within 500 ms"}};
    for (const auto& [tls, start, logged] : slowPeers) {
        std::vector<std::string> options{
            "--port", "0", "--max-connections", "1", "--idle-timeout-ms", "500"};
        if (tls) {
            options.insert(options.end(),
                           {"--tls-cert", pki.serverCert, "--tls-key", pki.serverKey});
        }
        ServerProcess server(options);
        auto dripped = std::async(std::launch::async, [&, &start = start] {
            return dripUntilClosed(server.port(), start);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        auto client =
            (tls ? ClientLibrary::tls() : ClientLibrary::tcp()).connect("127.0.0.1", server.port());
        EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes()) << logged;
        // 20 times the time-out: only a peer that is never dropped gets near it.
        EXPECT_LT(dripped.get().count(), 10000) << logged;
        EXPECT_THAT(server.err(), testing::HasSubstr(logged));
    }
}

}  // namespace
