// The staged ostrelink-server as a child process, driven through the staged TCP client library
// and raw sockets. Floods of garbage, stalled and vanishing clients are in tests/hardening.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <memory>
#include <vector>

#include "NetworkTestSupport.h"

using testing::HasSubstr;

namespace {

// True if the server closes the raw socket before its receive time-out; closes it.
bool closedByServer(int fd) {
    unsigned char byte;
    const ssize_t got = ::recv(fd, &byte, 1, 0);
    const bool closed = got == 0 || (got < 0 && errno == ECONNRESET);
    ::close(fd);
    return closed;
}

// A server of the C++ runtime stand-in, which sleeps and fails on request.
std::vector<std::string> cppRuntime(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(),
                     {"--port", "0", "--runtime",
                      HostLibrary::stagedPath("OstrelinkCppRuntimeNative"), "--runtime-code", "8"});
    return arguments;
}

// SIGTERM during a command: new clients are refused at once, and the command's reply still
// arrives within the drain time; past it, the server says what it dropped.
TEST(NetworkServer, SigtermRefusesNewClientsAndDrainsTheCommandInProgress) {
    for (const bool drained : {true, false}) {
        ServerProcess server(cppRuntime({"--drain-timeout-ms", drained ? "10000" : "100"}));
        auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
        const Bytes slow = makeMessage(8, 0, "sleep 1500", 2);
        Bytes reply;
        auto sent = std::async(std::launch::async, [&] {
            return drained ? (reply = roundTrip(*client, slow), std::string())
                           : failureOf([&] { roundTrip(*client, slow); });
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        ::kill(server.pid(), SIGTERM);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        EXPECT_LT(connectRaw(server.port()), 0) << drained;
        const std::string failure = sent.get();
        const int status = server.stop();
        if (drained) {
            EXPECT_EQ(reply, slow);
            EXPECT_EQ(status, 0);
        } else {
            EXPECT_THAT(failure, HasSubstr("connection closed by the server before the reply"));
            EXPECT_THAT(server.err(),
                        HasSubstr("the drain time of 100 ms ran out: dropped the command in "
                                  "progress on 1 connection(s): 127.0.0.1:"));
            EXPECT_EQ(status, 1 << 8);  // exit code 1
        }
    }
}

TEST(NetworkServer, ReceiverFailureComesBackAsAnExceptionReplyAndTheConnectionGoesOn) {
    ServerProcess server(cppRuntime({}));
    auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    EXPECT_EQ(roundTrip(*client, makeMessage(8, 0, "fail", 2)),
              makeMessage(2, 10, "Cpp runtime: command failed on request", 8));
    const Bytes echo = makeMessage(8, 0, "still here", 2);
    EXPECT_EQ(roundTrip(*client, echo), echo);
    EXPECT_EQ(roundTrip(*client, Bytes{8, 0, 0, 0, 0}),
              makeMessage(0, 10,
                          "ostrelink-server: a message of 5 bytes is shorter than its "
                          "11-byte header"));
}

// At capacity a new client is neither served nor turned away: it waits in the listen queue while
// every place is busy, then takes the place of the connection idle the longest. Clients whose
// pooled connections were closed that way connect again, so every command goes through.
TEST(NetworkServer, AtCapacityANewClientWaitsThenTakesThePlaceOfTheLongestIdleConnection) {
    ServerProcess server(cppRuntime({"--max-connections", "2"}));
    std::vector<std::unique_ptr<ITransport>> clients;
    for (int index = 0; index < 4; ++index) {
        clients.push_back(ClientLibrary::tcp().connect("127.0.0.1", server.port()));
    }
    const Bytes slow = makeMessage(8, 0, "sleep 1000", 2);
    const Bytes echo = makeMessage(8, 0, "served", 2);
    auto first = std::async(std::launch::async, [&] { return roundTrip(*clients[0], slow); });
    auto second = std::async(std::launch::async, [&] { return roundTrip(*clients[1], slow); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(roundTrip(*clients[2], echo), echo);
    EXPECT_EQ(first.get(), slow);
    EXPECT_EQ(second.get(), slow);
    // A pause before each command, so that the client looks at its pooled connection first.
    for (int round = 0; round < 2; ++round) {
        for (auto& client : clients) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            EXPECT_EQ(roundTrip(*client, echo), echo) << round;
        }
    }
    EXPECT_THAT(server.err(), HasSubstr(" connections, to make room for a waiting client"));
}

// Commands reach Java. An oversize frame and a silent connection are closed; each costs only that
// connection. A started JVM must not take SIGTERM over.
TEST(NetworkServer, LimitsCloseOnlyTheConnectionThatBreaksThemAndSigtermStopsTheServer) {
    ServerProcess server({"--port", "0", "--max-connections", "1", "--max-frame-bytes", "1000",
                          "--idle-timeout-ms", "300"});
    auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    const Bytes message = makeMessage(2, 0, "through the JVM and back");
    EXPECT_EQ(roundTrip(*client, message), message);
    EXPECT_THAT(failureOf([&] { roundTrip(*client, Bytes(1001, 0)); }),
                HasSubstr("127.0.0.1:" + std::to_string(server.port())));
    // A session that ends frees its place once the server notices.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes());
    client.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(closedByServer(connectRaw(server.port())));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    EXPECT_THAT(server.err(), HasSubstr("frame of 1001 bytes exceeds the limit of 1000 bytes"));
    EXPECT_EQ(server.stop(), 0);  // exit code 0
}

TEST(NetworkServer, CommandLinesItCantServeAreClearFailures) {
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string text;
    } cases[] = {
        {{"--help"}, 0, "--drain-timeout-ms"},
        {{"--listen", "0.0.0.0"}, 2, "refusing to listen on 0.0.0.0: "},
        {{"--listen", "0.0.0.0", "--tls-cert", "c.pem", "--tls-key", "k.pem"},
         2,
         "refusing to listen on 0.0.0.0: "},
        {{"--port", "70000"}, 2, "--port takes a whole number from 0 to 65535, not \"70000\""},
        {{"--frobnicate"}, 2, "unknown option \"--frobnicate\""},
        {{"--tls-client-ca", "ca.pem"}, 2, "--tls-client-ca needs --tls-cert and --tls-key"},
        {{"--runtime", "/nonexistent/libNothing.so"},
         1,
         "cannot load the runtime library /nonexistent/libNothing.so"},
    };
    for (const auto& [arguments, status, text] : cases) {
        const ChildRun run = runChild(ServerProcess::executable(), arguments, {}, "");
        EXPECT_EQ(run.status, status) << text;
        EXPECT_THAT(run.out + run.err, HasSubstr(text));
    }
}

}  // namespace
