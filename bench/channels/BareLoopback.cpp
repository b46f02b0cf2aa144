#include "channels/BareLoopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include <ostrelink/CommandHeader.h>

namespace {

constexpr std::size_t frameHeaderSize = 4;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("bare loopback: " + what + ": " + std::strerror(errno));
}

void encodeLength(std::size_t length, unsigned char* header) {
    header[0] = static_cast<unsigned char>(length >> 24);
    header[1] = static_cast<unsigned char>(length >> 16);
    header[2] = static_cast<unsigned char>(length >> 8);
    header[3] = static_cast<unsigned char>(length);
}

std::size_t decodeLength(const unsigned char* header) {
    return (std::size_t{header[0]} << 24) | (std::size_t{header[1]} << 16) |
           (std::size_t{header[2]} << 8) | std::size_t{header[3]};
}

void noDelay(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

BareLoopback::Stream::Stream(Stream&& other) noexcept
    : fd(std::exchange(other.fd, -1)), ssl(std::move(other.ssl)) {}

BareLoopback::Stream& BareLoopback::Stream::operator=(Stream&& other) noexcept {
    if (this != &other) {
        ssl.reset();
        if (fd >= 0) {
            close(fd);
        }
        fd = std::exchange(other.fd, -1);
        ssl = std::move(other.ssl);
    }
    return *this;
}

BareLoopback::Stream::~Stream() {
    ssl.reset();
    if (fd >= 0) {
        close(fd);
    }
}

void BareLoopback::Stream::readExact(unsigned char* buffer, std::size_t size) {
    while (size > 0) {
        const long got =
            ssl ? SSL_read(ssl.get(), buffer, static_cast<int>(size)) : recv(fd, buffer, size, 0);
        if (got <= 0) {
            if (!ssl && got < 0 && errno == EINTR) {
                continue;
            }
            throw std::runtime_error("bare loopback: the stream ended");
        }
        buffer += got;
        size -= static_cast<std::size_t>(got);
    }
}

void BareLoopback::Stream::writeAll(const unsigned char* data, std::size_t size) {
    while (size > 0) {
        const long sent = ssl ? SSL_write(ssl.get(), data, static_cast<int>(size))
                              : send(fd, data, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            if (!ssl && sent < 0 && errno == EINTR) {
                continue;
            }
            throw std::runtime_error("bare loopback: cannot write");
        }
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

void BareLoopback::setUpTls(const TestCertificates& tls) {
    m_serverContext.reset(SSL_CTX_new(TLS_server_method()));
    m_clientContext.reset(SSL_CTX_new(TLS_client_method()));
    if (!m_serverContext || !m_clientContext) {
        throw std::runtime_error("bare loopback: cannot set up TLS");
    }
    // Both ends pinned to what the client library and ostrelink-server agree on by default, so
    // that the same cryptography is measured on both roads.
    for (SSL_CTX* context : {m_serverContext.get(), m_clientContext.get()}) {
        if (SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) != 1 ||
            SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION) != 1 ||
            SSL_CTX_set_ciphersuites(context, "TLS_AES_256_GCM_SHA384") != 1 ||
            SSL_CTX_set1_groups_list(context, "X25519") != 1 ||
            SSL_CTX_load_verify_locations(context, tls.caCert.c_str(), nullptr) != 1) {
            throw std::runtime_error("bare loopback: cannot set up TLS");
        }
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    // Mutual TLS, as the benchmarked ostrelink-server asks for.
    if (SSL_CTX_use_certificate_chain_file(m_serverContext.get(), tls.serverCert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(m_serverContext.get(), tls.serverKey.c_str(),
                                    SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_certificate_chain_file(m_clientContext.get(), tls.clientCert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(m_clientContext.get(), tls.clientKey.c_str(),
                                    SSL_FILETYPE_PEM) != 1) {
        throw std::runtime_error("bare loopback: cannot load the test certificates");
    }
    // No session tickets, as ostrelink-server: they would be bytes to read after the handshake.
    SSL_CTX_set_num_tickets(m_serverContext.get(), 0);
}

void BareLoopback::connectClient(unsigned short port) {
    m_client.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (m_client.fd < 0 ||
        connect(m_client.fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fail("connect");
    }
    noDelay(m_client.fd);
    if (m_clientContext) {
        m_client.ssl.reset(SSL_new(m_clientContext.get()));
        SSL_set_fd(m_client.ssl.get(), m_client.fd);
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(m_client.ssl.get()), "127.0.0.1");
    }
}

void BareLoopback::handshake() {
    if (m_client.ssl && SSL_connect(m_client.ssl.get()) != 1) {
        m_client = Stream();
        if (m_server.joinable()) {
            m_server.join();
        }
        throw std::runtime_error("bare loopback: TLS handshake failed");
    }
}

BareLoopback::BareLoopback(const TestCertificates* tls) {
    if (tls != nullptr) {
        setUpTls(*tls);
    }
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof(address);
    if (m_listener < 0 ||
        bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(m_listener, 1) != 0 ||
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        fail("listen");
    }
    connectClient(ntohs(address.sin_port));
    Stream accepted;
    accepted.fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted.fd < 0) {
        fail("accept");
    }
    noDelay(accepted.fd);
    if (tls != nullptr) {
        accepted.ssl.reset(SSL_new(m_serverContext.get()));
        SSL_set_fd(accepted.ssl.get(), accepted.fd);
    }
    // The server side shakes hands on its own thread while this one does the client's part.
    m_server = std::thread(&BareLoopback::serve, this, std::move(accepted));
    handshake();
}

BareLoopback::BareLoopback(unsigned short serverPort, const TestCertificates* tls) {
    if (tls != nullptr) {
        setUpTls(*tls);
    }
    connectClient(serverPort);
    handshake();
}

BareLoopback::~BareLoopback() {
    // Closing the client ends the server's loop at its next read.
    m_client = Stream();
    if (m_server.joinable()) {
        m_server.join();
    }
    if (m_listener >= 0) {
        close(m_listener);
    }
}

void BareLoopback::serve(Stream stream) {
    try {
        if (stream.ssl && SSL_accept(stream.ssl.get()) != 1) {
            return;
        }
        std::vector<unsigned char> request;
        std::vector<unsigned char> reply(frameHeaderSize);
        encodeLength(sizeof(Ostrelink::Native::Definitions::acknowledgeReply), reply.data());
        reply.insert(reply.end(), std::begin(Ostrelink::Native::Definitions::acknowledgeReply),
                     std::end(Ostrelink::Native::Definitions::acknowledgeReply));
        for (;;) {
            unsigned char header[frameHeaderSize];
            stream.readExact(header, frameHeaderSize);
            request.resize(decodeLength(header));
            stream.readExact(request.data(), request.size());
            stream.writeAll(reply.data(), reply.size());
        }
    } catch (const std::runtime_error&) {
        // The client closed the connection: the end of the benchmark.
    }
}

int BareLoopback::roundTrip(const unsigned char* message, int length, unsigned char* reply,
                            int capacity) {
    const auto size = static_cast<std::size_t>(length);
    m_frame.resize(frameHeaderSize + size);
    encodeLength(size, m_frame.data());
    std::memcpy(m_frame.data() + frameHeaderSize, message, size);
    m_client.writeAll(m_frame.data(), m_frame.size());
    unsigned char header[frameHeaderSize];
    m_client.readExact(header, frameHeaderSize);
    const std::size_t replyLength = decodeLength(header);
    if (replyLength > static_cast<std::size_t>(capacity)) {
        throw std::runtime_error("bare loopback: the reply does not fit");
    }
    m_client.readExact(reply, replyLength);
    return static_cast<int>(replyLength);
}
