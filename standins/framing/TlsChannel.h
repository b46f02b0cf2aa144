#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ByteChannel.h"
#include "Deadline.h"

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
// SIGPIPE, and no call needs the signal mask changed around it. The socket blocks, with the time
// left of the call in progress set on it before each receive and send, as on a plain channel: a
// wait costs no failed read and no poll, and the handshake, a read or a write is bounded as a
// whole, however slowly the peer drips its bytes.
class TlsChannel : public ByteChannel {
public:
    // Runs the client handshake, all of it within timeoutMs. A non-empty expectedIp is checked
    // against the certificate's IP address entries; verification itself is whatever the context
    // asks for.
    static std::unique_ptr<TlsChannel> connect(Socket socket, SSL_CTX* context,
                                               const std::string& expectedIp, int timeoutMs);
    // Runs the server handshake, all of it within timeoutMs.
    static std::unique_ptr<TlsChannel> accept(Socket socket, SSL_CTX* context, int timeoutMs);

    // The BIO holds the address of m_link.
    TlsChannel(const TlsChannel&) = delete;
    TlsChannel& operator=(const TlsChannel&) = delete;

    std::size_t readSome(unsigned char* buffer, std::size_t size, int timeoutMs) override;
    void writeAll(const unsigned char* data, std::size_t size, int timeoutMs) override;
    // Copies both into one buffer, so that a small frame goes out as one record in one send.
    void writeGathered(const unsigned char* head, std::size_t headSize, const unsigned char* data,
                       std::size_t size, int timeoutMs) override;
    const Socket& socket() const override { return m_link.socket; }
    // Records that carry no data (a TLS 1.3 session ticket or key update) are taken, not counted.
    bool pendingInputOrClosed() override;

private:
    // What the BIO works on: the socket, and the bound of the OpenSSL call in progress, whose
    // clock starts at the call's first wait.
    struct Link {
        Socket socket;
        int timeoutMs = 0;
        std::optional<Deadline> deadline;
        bool timedOut = false;

        void start(int callTimeoutMs);
        // What is left for the next wait; 0 once the call's time is up.
        int leftMs();
    };

    TlsChannel(Socket socket, SSL_CTX* context);
    void handshake(bool client, int timeoutMs);
    // After an OpenSSL call that did not succeed: returns true to call it again, false at a
    // clean end of stream; throws StreamError when the call's time ran out ("<action><late>
    // within N ms") and on failures.
    bool settle(int result, const char* action, const char* late);

    static BIO* newSocketBio(Link* link);
    // One receive or send by io within what is left of the call; an interrupted one is made
    // again, and one that ran out of time asks OpenSSL to retry, with link.timedOut set.
    template <typename Io>
    static int transfer(BIO* bio, bool receiving, Io io);
    static int bioRead(BIO* bio, char* buffer, int size);
    static int bioWrite(BIO* bio, const char* data, int size);

    Link m_link;
    std::unique_ptr<SSL, SslDeleter> m_ssl;
    std::vector<unsigned char> m_gathered;
};

}  // namespace Ostrelink::Network
