// The whole network road: this host, this library's transmitter, the TCP or TLS client library,
// ostrelink-server in a process of its own, this library again inside the server, Java, and back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "NetworkTestSupport.h"
#include "TransportSupport.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::ITransmitter;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr unsigned char jvm = 2;
constexpr unsigned char cpp = 8;
constexpr unsigned char local[4] = {127, 0, 0, 1};

ITransmitter* transmitter() {
    return transmitterOf();
}

// An ordinary command, which the server's JVM answers in Java.
Bytes javaCommand(unsigned char connectionType, unsigned short port, const std::string& text) {
    Bytes message = routedMessage(jvm, cpp, connectionType, text, local, port);
    message[10] = 5;
    return message;
}

Bytes networkHealthCheck(unsigned char connectionType, unsigned short port) {
    Bytes message = healthCheckMessage(jvm);
    message[9] = cpp;
    setRoute(message, connectionType, local, port);
    return message;
}

void roundTrips(unsigned char connectionType, unsigned short port) {
    ITransmitter* sender = transmitter();
    EXPECT_EQ(sendAndRead(sender, networkHealthCheck(connectionType, port), jvm),
              acknowledgeBytes());
    Bytes message = javaCommand(connectionType, port, "over the wire");
    EXPECT_EQ(sendAndRead(sender, message, jvm), message);

    constexpr int threadCount = 4;
    constexpr int rounds = 25;
    std::atomic<int> wrong{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < rounds; ++round) {
                Bytes own = javaCommand(connectionType, port,
                                        std::to_string(i) + " of " + std::to_string(round));
                try {
                    if (sendAndRead(sender, own, jvm) != own) {
                        ++wrong;
                    }
                } catch (const std::exception&) {
                    ++failed;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(failed, 0);
}

TEST(EndToEnd, TcpToTheServersJvmAndBack) {
    ServerProcess server({"--port", "0"});
    roundTrips(1, server.port());
}

TEST(EndToEnd, TlsToTheServersJvmAndBack) {
    const TestCertificates certificates;
    setenv("OSTRELINK_TLS_CA_FILE", certificates.caCert.c_str(), 1);
    ServerProcess server({"--port", "0", "--tls-cert", certificates.serverCert, "--tls-key",
                          certificates.serverKey});
    roundTrips(2, server.port());
}

// Nobody listens: the client library's failure reaches the sender as it is, and the channel
// stays for the next attempt.
TEST(EndToEnd, RefusedConnectionReachesTheSender) {
    const unsigned short port = unusedPort();
    ITransmitter* sender = transmitter();
    Bytes message = javaCommand(1, port, "nobody there");
    for (int attempt = 0; attempt < 2; ++attempt) {
        const std::string text = failureOf(
            [&] { sender->SendCommand(message.data(), static_cast<int>(message.size())); });
        EXPECT_THAT(text, StartsWith("Ostrelink TCP client 127.0.0.1:" + std::to_string(port) +
                                     ": cannot connect: "));
        EXPECT_THAT(text, HasSubstr("refused"));
    }
}

}  // namespace
