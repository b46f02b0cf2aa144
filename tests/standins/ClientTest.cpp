// The TCP client library against peers that fail in every way a network can.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "NetworkTestSupport.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

std::string endpoint(unsigned short port) {
    return "Ostrelink TCP client 127.0.0.1:" + std::to_string(port) + ": ";
}

// Reads one request, then runs the rest of the misbehaviour.
TestPeer::Handler afterRequest(std::function<void(int)> then) {
    return [then](int fd, int) {
        Bytes request;
        if (readRawFrame(fd, request)) {
            then(fd);
        }
    };
}

TestPeer::Handler echo() {
    return [](int fd, int) {
        Bytes request;
        while (readRawFrame(fd, request)) {
            writeRawFrame(fd, request);
        }
    };
}

}  // namespace

TEST(NetworkTcpClient, EchoPeerRoundTripsAndReplyIsReadOnce) {
    TestPeer peer(echo());
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    const Bytes message = makeMessage(2, 0, "hello");
    EXPECT_EQ(roundTrip(*client, message), message);
    unsigned char buffer[4];
    EXPECT_THAT(failureOf([&] { client->ReadResponse(buffer, 4); }),
                AllOf(StartsWith(endpoint(peer.port())), HasSubstr("no reply stored")));
    EXPECT_EQ(client->SetEmbeddedRuntime(8, 2, 0, "x"), 0);
    EXPECT_EQ(client->DeployRuntime(nullptr, 0, "x", 0), 0);
}

TEST(NetworkTcpClient, ShortBufferGetsThePrefixAndTheReplyIsGone) {
    TestPeer peer(echo());
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    Bytes message = makeMessage(2, 0, "a longer payload");
    ASSERT_EQ(client->SendCommand(message.data(), static_cast<int>(message.size())),
              static_cast<int>(message.size()));
    Bytes prefix(5, 0xEE);
    client->ReadResponse(prefix.data(), 3);
    EXPECT_EQ(prefix, Bytes({message[0], message[1], message[2], 0xEE, 0xEE}));
    EXPECT_THAT(failureOf([&] { client->ReadResponse(prefix.data(), 3); }),
                HasSubstr("no reply stored"));
}

TEST(NetworkTcpClient, FailedCommandLeavesNoEarlierReplyBehind) {
    TestPeer peer([](int fd, int index) {
        Bytes request;
        if (readRawFrame(fd, request) && index == 0) {
            writeRawFrame(fd, request);
        }
    });
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    Bytes first = makeMessage(2, 0, "answered, never read");
    client->SendCommand(first.data(), static_cast<int>(first.size()));
    Bytes second = makeMessage(2, 0, "never answered");
    EXPECT_THROW(client->SendCommand(second.data(), static_cast<int>(second.size())),
                 std::runtime_error);
    unsigned char buffer[8];
    EXPECT_THAT(failureOf([&] { client->ReadResponse(buffer, 8); }), HasSubstr("no reply stored"));
}

TEST(NetworkTcpClient, RefusedPortNamesHostPortAndCause) {
    const unsigned short port = unusedPort();
    auto client = ClientLibrary::tcp().connect("127.0.0.1", port);
    Bytes message = healthCheckMessage();
    EXPECT_THAT(failureOf([&] { roundTrip(*client, message); }),
                AllOf(StartsWith(endpoint(port)), HasSubstr("cannot connect"),
                      HasSubstr("Connection refused")));
}

TEST(NetworkTcpClient, UnansweredConnectHitsTheConnectTimeOut) {
    ::setenv("OSTRELINK_NET_CONNECT_TIMEOUT_MS", "300", 1);
    // A listener that never accepts: once its queue is full, the kernel drops further SYNs
    // without an answer, as a host that has gone away would.
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    std::vector<int> fillers;
    for (int i = 0; i < 4; ++i) {
        const int filler = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        ::connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        fillers.push_back(filler);
    }
    const unsigned short port = ntohs(address.sin_port);
    auto client = ClientLibrary::tcp().connect("127.0.0.1", port);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(
        failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
        AllOf(StartsWith(endpoint(port)), HasSubstr("cannot connect: timed out after 300 ms")));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(290));
    EXPECT_LT(waited, std::chrono::seconds(3));
    for (int filler : fillers) {
        ::close(filler);
    }
    ::close(listener);
}

TEST(NetworkTcpClient, SilentServerHitsTheReadTimeOut) {
    ::setenv("OSTRELINK_NET_READ_TIMEOUT_MS", "300", 1);
    TestPeer peer([&](int fd, int) { waitForClose(fd, peer); });
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
                AllOf(StartsWith(endpoint(peer.port())), HasSubstr("no reply within 300 ms")));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(290));
    EXPECT_LT(waited, std::chrono::seconds(3));
}

TEST(NetworkTcpClient, ServerClosingMidReplyIsReported) {
    TestPeer peer(afterRequest([](int fd) { writeRaw(fd, {0, 0, 0, 100, 1, 2, 3}); }));
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    EXPECT_THAT(failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
                AllOf(StartsWith(endpoint(peer.port())),
                      HasSubstr("closed by the server in the middle of the reply")));
}

TEST(NetworkTcpClient, HalfAFrameHeaderIsMidReply) {
    TestPeer peer(afterRequest([](int fd) { writeRaw(fd, {0, 0}); }));
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    EXPECT_THAT(failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
                HasSubstr("in the middle of the reply"));
}

TEST(NetworkTcpClient, ServerClosingWithoutReplyIsReported) {
    TestPeer peer(afterRequest([](int) {}));
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    EXPECT_THAT(failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
                HasSubstr("closed by the server before the reply"));
}

TEST(NetworkTcpClient, OversizeReplyLengthIsRefused) {
    TestPeer peer(afterRequest([&](int fd) {
        writeRaw(fd, {0x7F, 0xFF, 0xFF, 0xFF});
        waitForClose(fd, peer);
    }));
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    EXPECT_THAT(failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
                AllOf(StartsWith(endpoint(peer.port())), HasSubstr("reply refused"),
                      HasSubstr("2147483647 bytes exceeds the limit of 67108864 bytes")));
}

TEST(NetworkTcpClient, ConfiguredFrameLimitAppliesToCommandsToo) {
    ::setenv("OSTRELINK_NET_MAX_FRAME_BYTES", "64", 1);
    TestPeer peer(echo());
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    Bytes big(65, 0);
    EXPECT_THAT(failureOf([&] { roundTrip(*client, big); }),
                HasSubstr("command of 65 bytes exceeds the limit of 64 bytes"));
    EXPECT_EQ(peer.connections(), 0);
    Bytes fits(64, 1);
    EXPECT_EQ(roundTrip(*client, fits), fits);
}

TEST(NetworkTcpClient, NextCommandReconnectsAfterABrokenConnection) {
    // The first connection dies mid-reply; the second echoes.
    TestPeer peer([](int fd, int index) {
        if (index == 0) {
            Bytes request;
            readRawFrame(fd, request);
            writeRaw(fd, {0, 0, 0, 50});
            return;
        }
        Bytes request;
        while (readRawFrame(fd, request)) {
            writeRawFrame(fd, request);
        }
    });
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    const Bytes message = makeMessage(2, 0, "again");
    EXPECT_THAT(failureOf([&] { roundTrip(*client, message); }), HasSubstr("middle of the reply"));
    EXPECT_EQ(roundTrip(*client, message), message);
    EXPECT_EQ(roundTrip(*client, message), message);
    EXPECT_EQ(peer.connections(), 2);
}

TEST(NetworkTcpClient, IdleConnectionClosedByTheServerIsReplacedButNoCommandIsSentTwice) {
    // Each connection answers once and hangs up, as a server's idle time-out would; the first
    // takes a second request before it hangs up, as a server that dies with a command would.
    std::atomic<int> requests{0};
    TestPeer peer([&requests](int fd, int index) {
        Bytes request;
        if (readRawFrame(fd, request)) {
            ++requests;
            writeRawFrame(fd, request);
        }
        if (index == 0 && readRawFrame(fd, request)) {
            ++requests;
        }
    });
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    const Bytes message = makeMessage(2, 0, "once");
    EXPECT_EQ(roundTrip(*client, message), message);
    EXPECT_THAT(failureOf([&] { roundTrip(*client, message); }),
                HasSubstr("before the reply (the command was sent, so it is not sent again)"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(roundTrip(*client, message), message);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(requests, 4);
    EXPECT_EQ(peer.connections(), 3);
}

TEST(NetworkTcpClient, FactoryRefusesUnusableSettings) {
    auto factory = [](const std::string& host) {
        return [host] { ClientLibrary::tcp().connect(host, 1); };
    };
    EXPECT_THAT(failureOf(factory("localhost")),
                HasSubstr("\"localhost\" is not a numeric IPv4 address"));
    ::setenv("OSTRELINK_NET_CONNECT_TIMEOUT_MS", "soon", 1);
    EXPECT_THAT(failureOf(factory("127.0.0.1")),
                HasSubstr("OSTRELINK_NET_CONNECT_TIMEOUT_MS must be a whole number"));
    ::setenv("OSTRELINK_NET_CONNECT_TIMEOUT_MS", "0", 1);
    EXPECT_THAT(failureOf(factory("127.0.0.1")), HasSubstr("\"0\""));
}

TEST(NetworkTcpClient, InvalidArgumentsAreRefusedWithoutConnecting) {
    TestPeer peer(echo());
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    EXPECT_THAT(failureOf([&] { client->SendCommand(nullptr, 4); }), HasSubstr("invalid command"));
    unsigned char byte = 0;
    EXPECT_THAT(failureOf([&] { client->SendCommand(&byte, -1); }), HasSubstr("invalid command"));
    EXPECT_EQ(peer.connections(), 0);
}
