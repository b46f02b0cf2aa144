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

}  // namespace
