#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

#include "ByteChannel.h"

namespace Ostrelink::Network {

struct SslContextDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using SslContext = std::unique_ptr<SSL_CTX, SslContextDeleter>;

struct SslDeleter {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};

// A context with the settings both sides share: TLS 1.2 at least, and an end of stream without
// close_notify read as an end of stream rather than an error. Throws StreamError (Tls).
SslContext makeSslContext(bool server);

// The reasons queued by OpenSSL on this thread, joined by "; ", and the queue cleared.
std::string takeTlsErrors();

// A TLS stream over a connected socket. OpenSSL reaches the socket through a BIO of ours that
// sends with MSG_NOSIGNAL, so a peer that vanishes can't kill a host process that never ignored
// SIGPIPE, and no call needs the signal mask changed around it.
class TlsChannel : public ByteChannel {
public:
    // Runs the client handshake within timeoutMs. A non-empty expectedIp is checked against the
    // certificate's IP address entries; verification itself is whatever the context asks for.
    static std::unique_ptr<TlsChannel> connect(Socket socket, SSL_CTX* context,
                                               const std::string& expectedIp, int timeoutMs);
    // Runs the server handshake within timeoutMs.
    static std::unique_ptr<TlsChannel> accept(Socket socket, SSL_CTX* context, int timeoutMs);

    std::size_t readSome(unsigned char* buffer, std::size_t size, int timeoutMs) override;
    void writeAll(const unsigned char* data, std::size_t size, int timeoutMs) override;
    // Copies both into one buffer, so that a small frame goes out as one record in one send.
    void writeGathered(const unsigned char* head, std::size_t headSize, const unsigned char* data,
                       std::size_t size, int timeoutMs) override;
    const Socket& socket() const override { return m_socket; }
    // Records that carry no data (a TLS 1.3 session ticket or key update) are taken, not counted.
    bool pendingInputOrClosed() override;

private:
    TlsChannel(Socket socket, SSL_CTX* context);
    void handshake(bool client, int timeoutMs);
    // After an OpenSSL call that did not succeed: waits for the socket and returns true to try
    // again, returns false at a clean end of stream, throws otherwise.
    bool settle(int result, int timeoutMs, const char* action);

    Socket m_socket;
    std::unique_ptr<SSL, SslDeleter> m_ssl;
    std::vector<unsigned char> m_gathered;
};

}  // namespace Ostrelink::Network
