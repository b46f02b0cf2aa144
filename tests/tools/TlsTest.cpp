// The staged TLS client library against the staged ostrelink-server with the build's test PKI:
// verification of the server and of the client, and the client's settings. A certificate for
// another address is refused in tests/hardening, through the library's own transmitter.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "NetworkTestSupport.h"

using testing::ContainsRegex;

namespace {

const TestCertificates pki;

struct TlsCase {
    const char* name;
    std::vector<std::string> server;  // options of the server
    EnvironmentChanges client;        // the client's settings
    const char* failure;              // nullptr: a health check goes through
    bool tls = true;                  // else the plain TCP client
};

void PrintTo(const TlsCase& tlsCase, std::ostream* out) {
    *out << tlsCase.name;
}

class NetworkTls : public testing::TestWithParam<TlsCase> {};

// A failure names the client, and the endpoint once it has one.
TEST_P(NetworkTls, AHealthCheckGoesThroughOrFailsWithItsText) {
    ServerProcess server(GetParam().server);
    for (const auto& [name, value] : GetParam().client) {
        ::setenv(name.c_str(), value->c_str(), 1);
    }
    const auto healthCheck = [&] {
        return roundTrip(*(GetParam().tls ? ClientLibrary::tls() : ClientLibrary::tcp())
                              .connect("127.0.0.1", server.port()),
                         healthCheckMessage());
    };
    if (GetParam().failure == nullptr) {
        EXPECT_EQ(healthCheck(), acknowledgeBytes());
    } else {
        EXPECT_THAT(failureOf(healthCheck),
                    ContainsRegex(std::string("^Ostrelink (") + (GetParam().tls ? "TLS" : "TCP") +
                                  "|network) client( 127\\.0\\.0\\.1:" +
                                  std::to_string(server.port()) + ")?: .*" + GetParam().failure));
    }
}

std::vector<std::string> tlsServer(const std::string& cert, const std::string& key,
                                   std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"--port", "0", "--tls-cert", cert, "--tls-key", key});
    return more;
}

const auto server = tlsServer(pki.serverCert, pki.serverKey);
const auto mutual = tlsServer(pki.serverCert, pki.serverKey, {"--tls-client-ca", pki.caCert});
const std::string ca = "OSTRELINK_TLS_CA_FILE", cert = "OSTRELINK_TLS_CERT_FILE",
                  key = "OSTRELINK_TLS_KEY_FILE", insecure = "OSTRELINK_TLS_INSECURE";

TlsCase row(const char* name, std::vector<std::string> options, EnvironmentChanges settings,
            const char* failure, bool tls = true) {
    return {name, std::move(options), std::move(settings), failure, tls};
}

INSTANTIATE_TEST_SUITE_P(
    Peers, NetworkTls,
    testing::Values(
        row("Trusted", server, {{ca, pki.caCert}}, nullptr),
        row("AnotherCa", server, {{ca, pki.otherCaCert}},
            "TLS verification of the peer certificate failed: unable to get local issuer "
            "certificate"),
        row("InsecureOptOut", tlsServer(pki.wrongHostCert, pki.wrongHostKey),
            {{ca, pki.otherCaCert}, {insecure, "1"}}, nullptr),
        row("MutualWithoutClientCertificate", mutual, {{ca, pki.caCert}}, "certificate required"),
        row("MutualWithClientCertificate", mutual,
            {{ca, pki.caCert}, {cert, pki.clientCert}, {key, pki.clientKey}}, nullptr),
        row("PlainClient", server, {}, "", false),
        row("MissingCaFile", server, {{ca, pki.caCert + ".missing"}}, "cannot load the CA file"),
        row("CertificateWithoutKey", server, {{cert, pki.clientCert}},
            "OSTRELINK_TLS_CERT_FILE and OSTRELINK_TLS_KEY_FILE must be set together"),
        row("KeyOfAnotherCertificate", server, {{cert, pki.clientCert}, {key, pki.serverKey}},
            "cannot use the client key"),
        row("InsecureNeitherZeroNorOne", server, {{insecure, "yes"}},
            "OSTRELINK_TLS_INSECURE must be 0 or 1")),
    [](const testing::TestParamInfo<TlsCase>& tlsCase) { return std::string(tlsCase.param.name); });

}  // namespace
