// The whole network road: this host, this library's transmitter, the TCP or TLS client library,
// ostrelink-server in a process of its own, this library again inside the server, Java, and back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "NetworkTestSupport.h"
#include "TransportSupport.h"

namespace {

// An ordinary command, which the server's JVM answers in Java.
Bytes javaCommand(unsigned char connectionType, unsigned short port, const std::string& text) {
    Bytes message = routedMessage(jvm, 8, connectionType, text, local, port);
    message[10] = 5;
    return message;
}

// Over TCP, then TLS: a health check, then threads whose replies must each be their own.
TEST(EndToEnd, TcpAndTlsToTheServersJvmAndBack) {
    const TestCertificates certificates;
    setenv("OSTRELINK_TLS_CA_FILE", certificates.caCert.c_str(), 1);
    auto* sender = transmitterOf();
    for (const unsigned char type : std::initializer_list<unsigned char>{1, 2}) {
        ServerProcess server(type == 1 ? std::vector<std::string>{"--port", "0"}
                                       : std::vector<std::string>{
                                             "--port", "0", "--tls-cert", certificates.serverCert,
                                             "--tls-key", certificates.serverKey});
        Bytes check = healthCheckMessage(jvm);
        check[9] = 8;
        setRoute(check, type, local, server.port());
        EXPECT_EQ(sendAndRead(sender, check, jvm), acknowledgeBytes());
        EXPECT_EQ(wrongReplies(sender, 4, jvm,
                               [&](int, const std::string& payload) {
                                   Bytes message = javaCommand(type, server.port(), payload);
                                   return std::pair{message, message};
                               }),
                  0);
    }
}

// A message marked TLS never goes out in the clear, whatever went to its address before: after a
// TCP health check to a plain server, the same check marked TLS fails its handshake instead of
// being answered. A TCP message to a TLS server's address that a TLS message reached first rides
// that TLS channel.
TEST(EndToEnd, AMessageMarkedTlsNeverGoesOutInTheClear) {
    const TestCertificates certificates;
    setenv("OSTRELINK_TLS_CA_FILE", certificates.caCert.c_str(), 1);
    auto* sender = transmitterOf();
    const auto check = [](unsigned char type, unsigned short port) {
        Bytes message = healthCheckMessage(jvm);
        message[9] = 8;
        setRoute(message, type, local, port);
        return message;
    };
    ServerProcess plain({"--port", "0"});
    EXPECT_EQ(sendAndRead(sender, check(1, plain.port()), jvm), acknowledgeBytes());
    EXPECT_THAT(
        failureOf([&] { sendAndRead(sender, check(2, plain.port()), jvm); }),
        testing::StartsWith("Ostrelink TLS client 127.0.0.1:" + std::to_string(plain.port()) +
                            ": cannot connect: TLS handshake failed"));
    ServerProcess tls({"--port", "0", "--tls-cert", certificates.serverCert, "--tls-key",
                       certificates.serverKey});
    EXPECT_EQ(sendAndRead(sender, check(2, tls.port()), jvm), acknowledgeBytes());
    EXPECT_EQ(sendAndRead(sender, check(1, tls.port()), jvm), acknowledgeBytes());
}

}  // namespace
