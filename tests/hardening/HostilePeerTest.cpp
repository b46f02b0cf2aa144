// The network road of the library's own transmitter against servers that misbehave: each failure
// must reach the sender as a clear text within the client's time-out, and the next message to
// the same address must work once the peer behaves. (The client library alone against these
// peers is in tests/standins; here the failure crosses the transmitter and the network channel.)

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include <ostrelink/RuntimeFactories.h>

#include "NetworkTestSupport.h"
#include "hardening/HardeningSupport.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateTransmitterFn;
using Ostrelink::Native::Interfaces::ITransmitter;
using testing::AllOf;
using testing::HasSubstr;

namespace {

constexpr int readTimeoutMs = 500;

class HostilePeer : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("OSTRELINK_NET_READ_TIMEOUT_MS", std::to_string(readTimeoutMs).c_str(), 1);
        ::setenv("OSTRELINK_LOGGING_LEVEL", "off", 1);
        m_transmitter = HostLibrary::jvmRuntime().get<CreateTransmitterFn>("CreateTransmitter")(
            RuntimeOperationMode::Calling);
    }

    Bytes message(unsigned char connectionType, unsigned short port, const std::string& text) {
        Bytes bytes = makeMessage(2, 0, text);
        setRoute(bytes, connectionType, {127, 0, 0, 1}, port);
        return bytes;
    }

    Bytes sendAndRead(Bytes bytes) { return ::sendAndRead(m_transmitter, std::move(bytes), 2); }

    // The failure text of one message, and checks that it came within the time-out.
    std::string failureWithinTimeOut(Bytes bytes) {
        const auto start = std::chrono::steady_clock::now();
        const std::string text = failureOf([&] { sendAndRead(bytes); });
        EXPECT_LT(std::chrono::steady_clock::now() - start,
                  std::chrono::milliseconds(readTimeoutMs + 2500));
        return text;
    }

    ITransmitter* m_transmitter = nullptr;
};

// The first connection misbehaves with first; every later one echoes.
TestPeer::Handler firstThenEcho(std::function<void(int fd)> first) {
    return [first](int fd, int index) {
        Bytes request;
        if (!readRawFrame(fd, request)) {
            return;
        }
        if (index == 0) {
            first(fd);
            return;
        }
        do {
            writeRawFrame(fd, request);
        } while (readRawFrame(fd, request));
    };
}

std::size_t openDescriptors() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        static_cast<void>(entry);
        ++count;
    }
    return count;
}

std::string endpoint(const char* kind, unsigned short port) {
    return std::string("Ostrelink ") + kind + " client 127.0.0.1:" + std::to_string(port);
}

TEST_F(HostilePeer, AServerThatNeverAnswersGivesATimeOutTextAndTheNextMessageWorks) {
    TestPeer peer(firstThenEcho([&peer](int fd) { waitForClose(fd, peer); }));
    const Bytes request = message(1, peer.port(), "silence");
    EXPECT_THAT(failureWithinTimeOut(request),
                AllOf(HasSubstr(endpoint("TCP", peer.port())),
                      HasSubstr("no reply within " + std::to_string(readTimeoutMs) + " ms")));
    EXPECT_EQ(sendAndRead(request), request);
}

TEST_F(HostilePeer, HalfAFrameAndThenSilenceGivesATimeOutText) {
    TestPeer peer(firstThenEcho([&peer](int fd) {
        writeRaw(fd, {0, 0, 0, 100, 1, 2, 3});
        waitForClose(fd, peer);
    }));
    const Bytes request = message(1, peer.port(), "half");
    EXPECT_THAT(failureWithinTimeOut(request), HasSubstr(endpoint("TCP", peer.port())));
    EXPECT_EQ(sendAndRead(request), request);
}

TEST_F(HostilePeer, AnOversizeLengthIsRefusedBeforeAnythingIsAllocated) {
    TestPeer peer(firstThenEcho([&peer](int fd) {
        writeRaw(fd, {0xFF, 0xFF, 0xFF, 0xFF});
        waitForClose(fd, peer);
    }));
    const Bytes request = message(1, peer.port(), "oversize");
    EXPECT_THAT(failureWithinTimeOut(request),
                AllOf(HasSubstr(endpoint("TCP", peer.port())), HasSubstr("reply refused"),
                      HasSubstr("4294967295 bytes")));
    EXPECT_EQ(sendAndRead(request), request);
}

TEST_F(HostilePeer, AResetInTheMiddleOfTheReplyIsReportedAndTheNextMessageReconnects) {
    // The linger option belongs to the socket, so the peer's own close then sends the RST.
    TestPeer peer(firstThenEcho([](int fd) {
        writeRaw(fd, {0, 0, 0, 50, 1, 2, 3, 4});
        resetConnection(::dup(fd));
    }));
    const Bytes request = message(1, peer.port(), "reset");
    EXPECT_THAT(failureWithinTimeOut(request), HasSubstr(endpoint("TCP", peer.port())));
    EXPECT_EQ(sendAndRead(request), request);
    EXPECT_EQ(peer.connections(), 2);
}

TEST_F(HostilePeer, ConnectionsThatFailedAreClosedNotLeaked) {
    TestPeer peer([&peer](int fd, int) { waitForClose(fd, peer); });
    const Bytes request = message(1, peer.port(), "silence again");
    failureOf([&] { sendAndRead(request); });
    const std::size_t descriptorsAfterFirst = openDescriptors();
    for (int attempt = 0; attempt < 10; ++attempt) {
        EXPECT_THAT(failureOf([&] { sendAndRead(request); }), HasSubstr("no reply within"));
    }
    EXPECT_EQ(peer.connections(), 11);
    EXPECT_LE(openDescriptors(), descriptorsAfterFirst + 1);
}

TEST_F(HostilePeer, ACertificateForAnotherAddressFailsVerificationWithAClearText) {
    const TestCertificates certificates;
    ::setenv("OSTRELINK_TLS_CA_FILE", certificates.caCert.c_str(), 1);
    ServerProcess wrongServer({"--port", "0", "--tls-cert", certificates.wrongHostCert, "--tls-key",
                               certificates.wrongHostKey});
    const Bytes request = message(2, wrongServer.port(), "wrong certificate");
    EXPECT_THAT(failureWithinTimeOut(request),
                AllOf(HasSubstr(endpoint("TLS", wrongServer.port())), HasSubstr("certificate")));
    // The process goes on: a server with the right certificate answers on another port (a health
    // check, which needs no JVM start in the server within the short time-out).
    ServerProcess rightServer({"--port", "0", "--tls-cert", certificates.serverCert, "--tls-key",
                               certificates.serverKey});
    Bytes good = healthCheckMessage();
    setRoute(good, 2, {127, 0, 0, 1}, rightServer.port());
    EXPECT_EQ(sendAndRead(good), acknowledgeBytes());
}

}  // namespace
