#pragma once

#include <string>

// The files of the build's test PKI (cmake/TestPki.cmake): a CA, a server certificate for
// 127.0.0.1, one for 127.0.0.2 (the wrong host), a client certificate, and a second CA that
// issued none of them.
struct TestCertificates {
    std::string caCert = OSTRELINK_TEST_PKI_DIR "ca.pem";
    std::string otherCaCert = OSTRELINK_TEST_PKI_DIR "otherca.pem";
    std::string serverCert = OSTRELINK_TEST_PKI_DIR "server.pem";
    std::string serverKey = OSTRELINK_TEST_PKI_DIR "server.key";
    std::string wrongHostCert = OSTRELINK_TEST_PKI_DIR "wronghost.pem";
    std::string wrongHostKey = OSTRELINK_TEST_PKI_DIR "wronghost.key";
    std::string clientCert = OSTRELINK_TEST_PKI_DIR "client.pem";
    std::string clientKey = OSTRELINK_TEST_PKI_DIR "client.key";
};
