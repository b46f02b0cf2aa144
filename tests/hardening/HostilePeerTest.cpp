// The network road of the library's own transmitter against servers that misbehave: each failure
// must reach the sender as a clear text within the client's time-out, close its connection, and
// the next message to the same address must work once the peer behaves. (The client library
// alone against these peers is in tests/standins.)

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include <ostrelink/RuntimeFactories.h>

#include "NetworkTestSupport.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateTransmitterFn;
using Ostrelink::Native::Interfaces::ITransmitter;
using testing::AllOf;
using testing::HasSubstr;

namespace {

class HostilePeer : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("OSTRELINK_NET_READ_TIMEOUT_MS", "500", 1);
        ::setenv("OSTRELINK_LOGGING_LEVEL", "off", 1);
        m_transmitter = HostLibrary::jvmRuntime().get<CreateTransmitterFn>("CreateTransmitter")(
            RuntimeOperationMode::Calling);
    }

    Bytes message(unsigned char connectionType, unsigned short port,
                  Bytes bytes = makeMessage(2, 0, "hostile")) {
        setRoute(bytes, connectionType, {127, 0, 0, 1}, port);
        return bytes;
    }

    // The failure text of one message, and checks that it came within the time-out.
    std::string failureWithinTimeOut(const Bytes& bytes) {
        const auto start = std::chrono::steady_clock::now();
        const std::string text = failureOf([&] { sendAndRead(m_transmitter, bytes, 2); });
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3000));
        return text;
    }

    ITransmitter* m_transmitter = nullptr;
};

struct Hostile {
    const char* name;
    std::function<void(PeerLink& link, const TestPeer& peer)> misbehave;
    const char* text;
};

const Hostile hostiles[] = {
    {"never answers", [](PeerLink& link, const TestPeer& peer) { waitForClose(link, peer); },
     "no reply within 500 ms"},
    {"half a frame, then silence",
     [](PeerLink& link, const TestPeer& peer) {
         writeRaw(link, {0, 0, 0, 100, 1, 2, 3});
         waitForClose(link, peer);
     },
     "no reply within 500 ms"},
    {"an oversize length",
     [](PeerLink& link, const TestPeer& peer) {
         writeRaw(link, {0xFF, 0xFF, 0xFF, 0xFF});
         waitForClose(link, peer);
     },
     "reply refused: frame of 4294967295 bytes"},
    // The linger option belongs to the socket, so the peer's own close then sends the RST.
    {"a reset in the middle of the reply",
     [](PeerLink& link, const TestPeer&) {
         writeRaw(link, {0, 0, 0, 50, 1, 2, 3, 4});
         const linger abort{1, 0};
         ::setsockopt(link.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
     },
     ""},
};

// Each peer misbehaves on its first connections, then echoes. Every failed connection is closed
// (not leaked) and none is used twice: each attempt is one new connection.
TEST_F(HostilePeer, EachFailureIsAClearTextAndTheNextMessageWorks) {
    constexpr int failing = 3;
    for (const Hostile& hostile : hostiles) {
        SCOPED_TRACE(hostile.name);
        TestPeer peer([&hostile, &peer](PeerLink& link, int index) {
            Bytes request;
            if (readRawFrame(link, request) && index < failing) {
                hostile.misbehave(link, peer);
                return;
            }
            do {
                writeRawFrame(link, request);
            } while (readRawFrame(link, request));
        });
        const Bytes request = message(1, peer.port());
        for (int attempt = 0; attempt < failing; ++attempt) {
            EXPECT_THAT(
                failureWithinTimeOut(request),
                AllOf(HasSubstr("Ostrelink TCP client 127.0.0.1:" + std::to_string(peer.port())),
                      HasSubstr(hostile.text)));
            EXPECT_EQ(connectionsTo(peer.port()), 0);
        }
        EXPECT_EQ(sendAndRead(m_transmitter, request, 2), request);
        EXPECT_EQ(peer.connections(), failing + 1);
    }
}

TEST_F(HostilePeer, ACertificateForAnotherAddressFailsVerificationWithAClearText) {
    const TestCertificates certificates;
    ::setenv("OSTRELINK_TLS_CA_FILE", certificates.caCert.c_str(), 1);
    ServerProcess wrongServer({"--port", "0", "--tls-cert", certificates.wrongHostCert, "--tls-key",
                               certificates.wrongHostKey});
    EXPECT_THAT(
        failureWithinTimeOut(message(2, wrongServer.port())),
        AllOf(HasSubstr("Ostrelink TLS client 127.0.0.1:" + std::to_string(wrongServer.port())),
              HasSubstr("certificate")));
    // The process goes on: a server with the right certificate answers on another port (a health
    // check, which needs no JVM start in the server within the short time-out).
    ServerProcess rightServer({"--port", "0", "--tls-cert", certificates.serverCert, "--tls-key",
                               certificates.serverKey});
    EXPECT_EQ(sendAndRead(m_transmitter, message(2, rightServer.port(), healthCheckMessage()), 2),
              acknowledgeBytes());
}

// A server that drips its handshake, a byte every 200 ms, each well inside the connect time-out:
// the handshake is bounded as a whole, so the command fails within that time-out, not never.
TEST_F(HostilePeer, AHandshakeDrippedByteByByteFailsWithinTheConnectTimeOut) {
    ::setenv("OSTRELINK_NET_CONNECT_TIMEOUT_MS", "300", 1);
    TestPeer peer([&peer](PeerLink& link, int) {
        const Bytes record{0x16, 3, 3, 2, 0};  // a handshake record of 512 bytes, never finished
        for (std::size_t index = 0; index < 75 && !peer.stopping(); ++index) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            writeRaw(link.fd(), {index < record.size() ? record[index] : std::uint8_t{0}});
        }
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(failureOf([&] { sendAndRead(m_transmitter, message(2, peer.port()), 2); }),
                HasSubstr("Ostrelink TLS client 127.0.0.1:" + std::to_string(peer.port()) +
                          ": cannot connect: TLS handshake not finished within 300 ms"));
    // 20 times the time-out: only a handshake that is never cut short gets near it.
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::steady_clock::now() - start)
                  .count(),
              6000);
}

// A frame nobody asked for, or a hang-up, between two messages never passes for the second one's
// reply nor fails it, over TCP and TLS, through this library's transmitter.
TEST_F(HostilePeer, BetweenMessagesAFrameOrAHangUpNeverReachesTheNextOne) {
    ::setenv("OSTRELINK_TLS_CA_FILE", TestCertificates().caCert.c_str(), 1);
    for (const TestPeer::Kind kind : {TestPeer::Kind::Tcp, TestPeer::Kind::Tls}) {
        const unsigned char connectionType = kind == TestPeer::Kind::Tls ? 2 : 1;
        expectEachCommandGetsItsOwnReply(kind, [&](unsigned short port, const Bytes& bytes) {
            return sendAndRead(m_transmitter, message(connectionType, port, bytes), 2);
        });
    }
}

}  // namespace
