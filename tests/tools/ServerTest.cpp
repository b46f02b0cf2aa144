// The staged ostrelink-server as a child process, driven through the staged TCP client library
// and through raw sockets that misbehave.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "NetworkTestSupport.h"

using testing::AllOf;
using testing::HasSubstr;

namespace {

// True if the server closes the socket within the limit.
bool closedByServer(int fd, std::chrono::milliseconds limit) {
    const timeval wait{0, 100000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    const auto deadline = std::chrono::steady_clock::now() + limit;
    unsigned char byte;
    while (std::chrono::steady_clock::now() < deadline) {
        const ssize_t got = ::recv(fd, &byte, 1, 0);
        if (got == 0 || (got < 0 && errno == ECONNRESET)) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> cppRuntime() {
    return {"--runtime", HostLibrary::stagedPath("OstrelinkCppRuntimeNative"), "--runtime-code",
            "8"};
}

}  // namespace

TEST(NetworkServer, AnswersAHealthCheckThroughTheJvmRuntimeAndStopsOnSigterm) {
    ServerProcess server({"--port", "0"});
    {
        auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
        EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes());
        EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes());
    }
    const int status = server.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_THAT(server.standardOutput(), HasSubstr("stopped"));
}

TEST(NetworkServer, CommandsReachJavaAndTheServerStillStopsCleanly) {
    ServerProcess server({"--port", "0"});
    {
        auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
        const Bytes message = makeMessage(2, 0, "through the JVM and back");
        EXPECT_EQ(roundTrip(*client, message), message);
        EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes());
    }
    // A started JVM must not take SIGTERM over from the server.
    const int status = server.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_THAT(server.standardOutput(), HasSubstr("stopped"));
}

// SIGTERM during a command: new clients are refused at once, and the command's reply still
// arrives within the drain time; past it, the server says what it dropped.
TEST(NetworkServer, SigtermRefusesNewClientsAndDrainsTheCommandInProgress) {
    for (const bool drained : {true, false}) {
        std::vector<std::string> arguments = cppRuntime();
        arguments.insert(arguments.end(),
                         {"--port", "0", "--drain-timeout-ms", drained ? "10000" : "100"});
        ServerProcess server(arguments);
        auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
        const Bytes slow = makeMessage(8, 0, "sleep 1500", 2);
        Bytes reply;
        std::string failure;
        std::thread sender([&] {
            try {
                reply = roundTrip(*client, slow);
            } catch (const std::runtime_error& error) {
                failure = error.what();
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        server.terminate();
        bool refused = false;
        for (int attempt = 0; attempt < 50 && !refused; ++attempt) {
            const int fd = connectRaw(server.port());
            refused = fd < 0;
            if (!refused) {
                ::close(fd);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        EXPECT_TRUE(refused) << drained;
        sender.join();
        const int status = server.stop();
        if (drained) {
            EXPECT_EQ(reply, slow) << failure;
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        } else {
            EXPECT_THAT(failure, HasSubstr("connection closed by the server before the reply"));
            EXPECT_THAT(server.standardError(),
                        HasSubstr("the drain time of 100 ms ran out: dropped the command in "
                                  "progress on 1 connection(s): 127.0.0.1:"));
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
        }
    }
}

TEST(NetworkServer, ReceiverFailureComesBackAsAnExceptionReplyAndTheConnectionGoesOn) {
    std::vector<std::string> arguments = cppRuntime();
    arguments.insert(arguments.end(), {"--port", "0"});
    ServerProcess server(arguments);
    auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    const Bytes reply = roundTrip(*client, makeMessage(8, 0, "fail", 2));
    ASSERT_GT(reply.size(), 24u);
    EXPECT_EQ(reply[0], 2);    // to the calling runtime
    EXPECT_EQ(reply[9], 8);    // from the hosted one
    EXPECT_EQ(reply[10], 10);  // ExceptionReply
    EXPECT_EQ(std::string(reply.begin() + 24, reply.end()),
              "Cpp runtime: command failed on request");
    const Bytes echo = makeMessage(8, 0, "still here", 2);
    EXPECT_EQ(roundTrip(*client, echo), echo);
    const Bytes tooShort = roundTrip(*client, Bytes{8, 0, 0, 0, 0});
    EXPECT_EQ(tooShort[10], 10);
    EXPECT_THAT(std::string(tooShort.begin() + 24, tooShort.end()),
                HasSubstr("a message of 5 bytes is shorter than its 11-byte header"));
}

TEST(NetworkServer, SurvivesGarbageAndStalledClientsWhileServingOthers) {
    ServerProcess server({"--port", "0", "--max-frame-bytes", "1000"});
    auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes());

    const int oversize = connectRaw(server.port());
    writeRaw(oversize, {0xFF, 0xFF, 0xFF, 0xFF, 'x'});
    EXPECT_TRUE(closedByServer(oversize, std::chrono::seconds(5)));
    ::close(oversize);

    const int stalled = connectRaw(server.port());
    writeRaw(stalled, {0, 0, 0, 40, 2, 0});
    const int vanishing = connectRaw(server.port());
    writeRaw(vanishing, {0, 0, 0, 40, 2, 0, 0});
    ::close(vanishing);

    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes());
    }
    ::close(stalled);
    EXPECT_THAT(server.standardError(),
                HasSubstr("frame of 4294967295 bytes exceeds the limit of 1000 bytes"));
    const int status = server.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(NetworkServer, OversizeRequestCostsOnlyThatConnection) {
    ServerProcess server({"--port", "0", "--max-frame-bytes", "100"});
    auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    EXPECT_THAT(failureOf([&] { roundTrip(*client, Bytes(101, 0)); }),
                HasSubstr("127.0.0.1:" + std::to_string(server.port())));
    EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes());
}

TEST(NetworkServer, ClosesSilentConnectionsAfterTheIdleTimeOut) {
    ServerProcess server({"--port", "0", "--idle-timeout-ms", "300"});
    const int silent = connectRaw(server.port());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(closedByServer(silent, std::chrono::seconds(5)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    ::close(silent);
}

TEST(NetworkServer, ConnectionsBeyondTheLimitAreClosedAtOnce) {
    ServerProcess server({"--port", "0", "--max-connections", "1"});
    auto first = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    EXPECT_EQ(roundTrip(*first, healthCheckMessage()), acknowledgeBytes());
    const int second = connectRaw(server.port());
    EXPECT_TRUE(closedByServer(second, std::chrono::seconds(2)));
    ::close(second);
    EXPECT_THAT(server.standardError(), HasSubstr("1 connections are being served already"));
    first.reset();
    // The first session ends; its place frees up once the server notices.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto third = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    EXPECT_EQ(roundTrip(*third, healthCheckMessage()), acknowledgeBytes());
}

TEST(NetworkServerCommandLine, RefusesANonLoopbackAddressWithoutMutualTls) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"--listen", "0.0.0.0"},
             {"--listen", "0.0.0.0", "--tls-cert", "c.pem", "--tls-key", "k.pem"}}) {
        const auto outcome = ServerProcess::run(arguments);
        EXPECT_EQ(outcome.exitCode, 2);
        EXPECT_THAT(
            outcome.standardError,
            AllOf(HasSubstr("refusing to listen on 0.0.0.0"),
                  HasSubstr("needs mutual TLS (--tls-cert, --tls-key and --tls-client-ca)")));
        EXPECT_EQ(outcome.standardOutput, "");
    }
}

TEST(NetworkServerCommandLine, HelpExplainsEveryOption) {
    const auto outcome = ServerProcess::run({"--help"});
    EXPECT_EQ(outcome.exitCode, 0);
    for (const char* option : {"--runtime ", "--runtime-code", "--listen", "--port", "--tls-cert",
                               "--tls-key", "--tls-client-ca", "--max-connections",
                               "--max-frame-bytes", "--idle-timeout-ms", "--drain-timeout-ms"}) {
        EXPECT_THAT(outcome.standardOutput, HasSubstr(option));
    }
}

TEST(NetworkServerCommandLine, UnusableArgumentsAndRuntimesAreClearFailures) {
    auto outcome = ServerProcess::run({"--port", "70000"});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_THAT(outcome.standardError,
                HasSubstr("--port takes a whole number from 0 to 65535, not \"70000\""));
    outcome = ServerProcess::run({"--frobnicate"});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_THAT(outcome.standardError, HasSubstr("unknown option \"--frobnicate\""));
    outcome = ServerProcess::run({"--tls-client-ca", "ca.pem"});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_THAT(outcome.standardError, HasSubstr("--tls-client-ca needs --tls-cert and --tls-key"));
    outcome = ServerProcess::run({"--runtime", "/nonexistent/libNothing.so"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.standardError,
                HasSubstr("cannot load the runtime library /nonexistent/libNothing.so"));
}
