// The staged TLS client library against the staged ostrelink-server, with a PKI made for each
// test: verification of the server, of its address, and of the client.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "NetworkTestSupport.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

std::vector<std::string> tlsServer(const std::string& cert, const std::string& key) {
    return {"--port", "0", "--tls-cert", cert, "--tls-key", key};
}

std::string endpoint(const ServerProcess& server) {
    return "Ostrelink TLS client 127.0.0.1:" + std::to_string(server.port()) + ": ";
}

}  // namespace

TEST(NetworkTls, TrustedCertificateForTheRightAddressWorks) {
    TestCertificates pki;
    ServerProcess server(tlsServer(pki.serverCert, pki.serverKey));
    ::setenv("OSTRELINK_TLS_CA_FILE", pki.caCert.c_str(), 1);
    auto client = ClientLibrary::tls().connect("127.0.0.1", server.port());
    EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes());
    const Bytes message = makeMessage(2, 0, "through TLS to the JVM and back");
    EXPECT_EQ(roundTrip(*client, message), message);
}

TEST(NetworkTls, CertificateFromAnotherCaFailsVerification) {
    TestCertificates pki;
    ServerProcess server(tlsServer(pki.serverCert, pki.serverKey));
    ::setenv("OSTRELINK_TLS_CA_FILE", pki.otherCaCert.c_str(), 1);
    auto client = ClientLibrary::tls().connect("127.0.0.1", server.port());
    EXPECT_THAT(failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
                AllOf(StartsWith(endpoint(server)),
                      HasSubstr("TLS verification of the peer certificate failed: unable to get "
                                "local issuer certificate")));
}

TEST(NetworkTls, CertificateForAnotherAddressFailsVerification) {
    TestCertificates pki;
    ServerProcess server(tlsServer(pki.wrongHostCert, pki.wrongHostKey));
    ::setenv("OSTRELINK_TLS_CA_FILE", pki.caCert.c_str(), 1);
    auto client = ClientLibrary::tls().connect("127.0.0.1", server.port());
    EXPECT_THAT(failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
                AllOf(StartsWith(endpoint(server)), HasSubstr("IP address mismatch")));
}

TEST(NetworkTls, InsecureOptOutSkipsVerification) {
    TestCertificates pki;
    ServerProcess server(tlsServer(pki.wrongHostCert, pki.wrongHostKey));
    ::setenv("OSTRELINK_TLS_CA_FILE", pki.otherCaCert.c_str(), 1);
    ::setenv("OSTRELINK_TLS_INSECURE", "1", 1);
    auto client = ClientLibrary::tls().connect("127.0.0.1", server.port());
    EXPECT_EQ(roundTrip(*client, healthCheckMessage()), acknowledgeBytes());
}

TEST(NetworkTls, MutualTlsRefusesAClientWithoutCertificateAndServesOneWithIt) {
    TestCertificates pki;
    std::vector<std::string> arguments = tlsServer(pki.serverCert, pki.serverKey);
    arguments.insert(arguments.end(), {"--tls-client-ca", pki.caCert});
    ServerProcess server(arguments);
    ::setenv("OSTRELINK_TLS_CA_FILE", pki.caCert.c_str(), 1);
    {
        auto anonymous = ClientLibrary::tls().connect("127.0.0.1", server.port());
        EXPECT_THAT(failureOf([&] { roundTrip(*anonymous, healthCheckMessage()); }),
                    AllOf(StartsWith(endpoint(server)), HasSubstr("certificate required")));
    }
    ::setenv("OSTRELINK_TLS_CERT_FILE", pki.clientCert.c_str(), 1);
    ::setenv("OSTRELINK_TLS_KEY_FILE", pki.clientKey.c_str(), 1);
    auto identified = ClientLibrary::tls().connect("127.0.0.1", server.port());
    EXPECT_EQ(roundTrip(*identified, healthCheckMessage()), acknowledgeBytes());
}

TEST(NetworkTls, PlainClientGetsNoAnswerFromATlsServer) {
    TestCertificates pki;
    ServerProcess server(tlsServer(pki.serverCert, pki.serverKey));
    auto client = ClientLibrary::tcp().connect("127.0.0.1", server.port());
    EXPECT_THAT(failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
                HasSubstr("Ostrelink TCP client 127.0.0.1:" + std::to_string(server.port())));
}

TEST(NetworkTls, UnusableTlsSettingsFailInTheFactory) {
    TestCertificates pki;
    ::setenv("OSTRELINK_TLS_CA_FILE", (pki.caCert + ".missing").c_str(), 1);
    EXPECT_THAT(failureOf([&] { ClientLibrary::tls().connect("127.0.0.1", 1); }),
                HasSubstr("cannot load the CA file"));
    ::setenv("OSTRELINK_TLS_CA_FILE", pki.caCert.c_str(), 1);
    ::setenv("OSTRELINK_TLS_CERT_FILE", pki.clientCert.c_str(), 1);
    EXPECT_THAT(
        failureOf([&] { ClientLibrary::tls().connect("127.0.0.1", 1); }),
        HasSubstr("OSTRELINK_TLS_CERT_FILE and OSTRELINK_TLS_KEY_FILE must be set together"));
    ::setenv("OSTRELINK_TLS_KEY_FILE", pki.serverKey.c_str(), 1);
    EXPECT_THAT(failureOf([&] { ClientLibrary::tls().connect("127.0.0.1", 1); }),
                HasSubstr("cannot use the client key"));
    ::setenv("OSTRELINK_TLS_INSECURE", "yes", 1);
    EXPECT_THAT(failureOf([&] { ClientLibrary::tls().connect("127.0.0.1", 1); }),
                HasSubstr("OSTRELINK_TLS_INSECURE must be 0 or 1"));
}
