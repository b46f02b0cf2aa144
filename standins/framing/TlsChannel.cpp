#include "TlsChannel.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <sys/socket.h>

#include <cerrno>

#include "StreamError.h"

namespace Ostrelink::Network {

namespace {

long bioControl(BIO* bio, int command, long, void*) {
    switch (command) {
        case BIO_CTRL_FLUSH:
            return 1;
        case BIO_CTRL_EOF:
            return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
        default:
            return 0;
    }
}

int bioCreate(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

}  // namespace

SslContext makeSslContext(bool server) {
    SslContext context(SSL_CTX_new(server ? TLS_server_method() : TLS_client_method()));
    if (!context) {
        throw StreamError(StreamFailure::Tls, "cannot create a TLS context: " + takeTlsErrors());
    }
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    // A record's header and body in one recv, rather than one for each.
    SSL_CTX_set_read_ahead(context.get(), 1);
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
    SSL_CTX_set_options(context.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
    return context;
}

std::string takeTlsErrors() {
    std::string text;
    while (const unsigned long error = ERR_get_error()) {
        std::string reason;
        if (ERR_SYSTEM_ERROR(error)) {
            reason = errnoText(ERR_GET_REASON(error));
        } else if (const char* known = ERR_reason_error_string(error)) {
            reason = known;
        } else {
            reason = "error " + std::to_string(error);
        }
        // One failure often queues the same reason at several levels.
        if (text.find(reason) == std::string::npos) {
            text += (text.empty() ? "" : "; ") + reason;
        }
    }
    return text.empty() ? "unknown TLS error" : text;
}

void TlsChannel::Link::start(int callTimeoutMs) {
    timeoutMs = callTimeoutMs;
    deadline.reset();
    timedOut = false;
}

int TlsChannel::Link::leftMs() {
    if (!deadline) {
        deadline.emplace(timeoutMs);
        return timeoutMs;
    }
    return deadline->leftMs();
}

// The socket BIO of OpenSSL writes with write(), which raises SIGPIPE on a vanished peer; this
// one sends with MSG_NOSIGNAL instead. It asks OpenSSL to retry only when the call's time is up,
// which the channel then reports as a time-out; an interrupted call is simply made again.
BIO* TlsChannel::newSocketBio(Link* link) {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made =
            BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "ostrelink socket");
        if (made != nullptr) {
            BIO_meth_set_write(made, bioWrite);
            BIO_meth_set_read(made, bioRead);
            BIO_meth_set_ctrl(made, bioControl);
            BIO_meth_set_create(made, bioCreate);
        }
        return made;
    }();
    BIO* bio = method != nullptr ? BIO_new(method) : nullptr;
    if (bio != nullptr) {
        BIO_set_data(bio, link);
    }
    return bio;
}

template <typename Io>
int TlsChannel::transfer(BIO* bio, bool receiving, Io io) {
    Link& link = *static_cast<Link*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    for (;;) {
        const int left = link.leftMs();
        if (left > 0) {
            if (!(receiving ? link.socket.limitReceive(left) : link.socket.limitSend(left))) {
                return -1;
            }
            const ssize_t done = io(link.socket.fd());
            if (done >= 0) {
                return static_cast<int>(done);
            }
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                return -1;
            }
        }
        link.timedOut = true;
        if (receiving) {
            BIO_set_retry_read(bio);
        } else {
            BIO_set_retry_write(bio);
        }
        return -1;
    }
}

int TlsChannel::bioRead(BIO* bio, char* buffer, int size) {
    const int got = transfer(
        bio, true, [&](int fd) { return ::recv(fd, buffer, static_cast<std::size_t>(size), 0); });
    if (got == 0) {
        BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    }
    return got;
}

int TlsChannel::bioWrite(BIO* bio, const char* data, int size) {
    return transfer(bio, false, [&](int fd) {
        return ::send(fd, data, static_cast<std::size_t>(size), MSG_NOSIGNAL);
    });
}

TlsChannel::TlsChannel(Socket socket, SSL_CTX* context) : m_ssl(SSL_new(context)) {
    m_link.socket = std::move(socket);
    m_link.socket.makeBlocking();
    BIO* bio = m_ssl ? newSocketBio(&m_link) : nullptr;
    if (bio == nullptr) {
        throw StreamError(StreamFailure::Tls, "cannot set up TLS: " + takeTlsErrors());
    }
    // The SSL object owns the BIO from here on, for both directions.
    SSL_set_bio(m_ssl.get(), bio, bio);
}

std::unique_ptr<TlsChannel> TlsChannel::connect(Socket socket, SSL_CTX* context,
                                                const std::string& expectedIp, int timeoutMs) {
    std::unique_ptr<TlsChannel> channel(new TlsChannel(std::move(socket), context));
    if (!expectedIp.empty() && X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(channel->m_ssl.get()),
                                                             expectedIp.c_str()) != 1) {
        throw StreamError(StreamFailure::Tls, "cannot check the certificate against " + expectedIp +
                                                  ": " + takeTlsErrors());
    }
    channel->handshake(true, timeoutMs);
    return channel;
}

std::unique_ptr<TlsChannel> TlsChannel::accept(Socket socket, SSL_CTX* context, int timeoutMs) {
    std::unique_ptr<TlsChannel> channel(new TlsChannel(std::move(socket), context));
    channel->handshake(false, timeoutMs);
    return channel;
}

void TlsChannel::handshake(bool client, int timeoutMs) {
    m_link.start(timeoutMs);
    for (;;) {
        ERR_clear_error();
        errno = 0;
        const int result = client ? SSL_connect(m_ssl.get()) : SSL_accept(m_ssl.get());
        if (result == 1) {
            return;
        }
        const long verified = SSL_get_verify_result(m_ssl.get());
        if (SSL_get_error(m_ssl.get(), result) == SSL_ERROR_SSL && verified != X509_V_OK) {
            ERR_clear_error();
            throw StreamError(StreamFailure::Tls,
                              std::string("TLS verification of the peer certificate failed: ") +
                                  X509_verify_cert_error_string(verified));
        }
        if (!settle(result, "TLS handshake", " not finished")) {
            throw StreamError(StreamFailure::Tls, "TLS handshake failed: connection closed");
        }
    }
}

bool TlsChannel::settle(int result, const char* action, const char* late) {
    const int savedErrno = errno;
    switch (SSL_get_error(m_ssl.get(), result)) {
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
            if (m_link.timedOut) {
                ERR_clear_error();
                throw StreamError(StreamFailure::TimedOut, std::string(action) + late + " within " +
                                                               std::to_string(m_link.timeoutMs) +
                                                               " ms");
            }
            return true;
        case SSL_ERROR_ZERO_RETURN:
            return false;
        case SSL_ERROR_SYSCALL:
            if (ERR_peek_error() == 0) {
                if (savedErrno == 0) {
                    return false;
                }
                throw StreamError(StreamFailure::Io,
                                  std::string(action) + " failed: " + errnoText(savedErrno));
            }
            break;
        default:
            break;
    }
    throw StreamError(StreamFailure::Tls, std::string(action) + " failed: " + takeTlsErrors());
}

std::size_t TlsChannel::readSome(unsigned char* buffer, std::size_t size, int timeoutMs) {
    m_link.start(timeoutMs);
    for (;;) {
        ERR_clear_error();
        errno = 0;
        std::size_t got = 0;
        const int result = SSL_read_ex(m_ssl.get(), buffer, size, &got);
        if (result == 1) {
            return got;
        }
        if (!settle(result, "TLS receive", ": no data")) {
            return 0;
        }
    }
}

void TlsChannel::writeAll(const unsigned char* data, std::size_t size, int timeoutMs) {
    m_link.start(timeoutMs);
    while (size > 0) {
        ERR_clear_error();
        errno = 0;
        std::size_t written = 0;
        const int result = SSL_write_ex(m_ssl.get(), data, size, &written);
        if (result == 1) {
            data += written;
            size -= written;
            continue;
        }
        if (!settle(result, "TLS send", ": the peer did not take the data")) {
            throw StreamError(StreamFailure::Closed, "TLS send failed: connection closed");
        }
    }
}

void TlsChannel::writeGathered(const unsigned char* head, std::size_t headSize,
                               const unsigned char* data, std::size_t size, int timeoutMs) {
    m_gathered.assign(head, head + headSize);
    m_gathered.insert(m_gathered.end(), data, data + size);
    writeAll(m_gathered.data(), m_gathered.size(), timeoutMs);
    // A pooled connection should not hold on to the largest frame it ever sent.
    if (m_gathered.capacity() > std::size_t{64} * 1024) {
        std::vector<unsigned char>().swap(m_gathered);
    }
}

bool TlsChannel::pendingInputOrClosed() {
    if (SSL_has_pending(m_ssl.get()) == 1) {
        return true;
    }
    if (m_link.socket.idleAndOpen()) {
        return false;
    }
    // The kernel holds bytes. A TLS 1.3 server may send records without data after a reply (a
    // session ticket, a key update), and those are no reason to drop the connection: let OpenSSL
    // take what has come, without waiting, and look at what is left. Data, a close, an error or
    // part of a record make the connection unfit.
    const int fd = m_link.socket.fd();
    const int flags = ::fcntl(fd, F_GETFL);
    const bool blocking = flags >= 0 && (flags & O_NONBLOCK) == 0;
    if (flags < 0 || (blocking && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0)) {
        return true;
    }
    ERR_clear_error();
    // A fresh bound for the BIO: one left over from the last call may have run out, and the BIO
    // would then not read at all. The socket is non-blocking here, so nothing waits for it.
    m_link.start(1000);
    unsigned char byte = 0;
    std::size_t got = 0;
    const int result = SSL_peek_ex(m_ssl.get(), &byte, 1, &got);
    const bool nothingLeft = result != 1 &&
                             SSL_get_error(m_ssl.get(), result) == SSL_ERROR_WANT_READ &&
                             SSL_has_pending(m_ssl.get()) == 0;
    ERR_clear_error();
    const bool restored = !blocking || ::fcntl(fd, F_SETFL, flags) == 0;
    return !(nothingLeft && restored);
}

}  // namespace Ostrelink::Network
