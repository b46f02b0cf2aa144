#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <thread>
#include <vector>

#include "common/TestCertificates.h"

// The baseline of the network channels: a client and a server thread in this process, joined by
// one connection on 127.0.0.1, speaking the same frames (a 4-byte big-endian length, then the
// payload) with nothing in between: blocking sockets, TCP_NODELAY, one write per frame. The
// server answers every request with the 17-byte reply a health check gets. With certificates,
// mutual TLS runs over the same connection, pinned to TLS 1.3, TLS_AES_256_GCM_SHA384 and X25519:
// what the client library and ostrelink-server choose by default.
class BareLoopback {
public:
    explicit BareLoopback(const TestCertificates* tls = nullptr);
    // Only the bare client, connected to a server that runs elsewhere on 127.0.0.1.
    BareLoopback(unsigned short serverPort, const TestCertificates* tls);
    ~BareLoopback();
    BareLoopback(const BareLoopback&) = delete;
    BareLoopback& operator=(const BareLoopback&) = delete;

    // One request frame out, one reply frame in. Returns the reply length.
    int roundTrip(const unsigned char* message, int length, unsigned char* reply, int capacity);

    struct ContextDeleter {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };
    struct SslDeleter {
        void operator()(SSL* ssl) const { SSL_free(ssl); }
    };

    // One end of the connection: a blocking socket and, for TLS, its session.
    struct Stream {
        Stream() = default;
        Stream(Stream&& other) noexcept;
        Stream& operator=(Stream&& other) noexcept;
        ~Stream();
        int fd = -1;
        std::unique_ptr<SSL, SslDeleter> ssl;
        void readExact(unsigned char* buffer, std::size_t size);
        void writeAll(const unsigned char* data, std::size_t size);
    };

private:
    void setUpTls(const TestCertificates& tls);
    void connectClient(unsigned short port);
    void handshake();
    void serve(Stream stream);

    std::unique_ptr<SSL_CTX, ContextDeleter> m_serverContext;
    std::unique_ptr<SSL_CTX, ContextDeleter> m_clientContext;
    int m_listener = -1;
    Stream m_client;
    std::vector<unsigned char> m_frame;
    std::thread m_server;
};
