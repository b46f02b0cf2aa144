#include "TlsChannel.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <ctime>

#include "StreamError.h"

namespace Ostrelink::Network {

namespace {

// Blocks SIGPIPE on this thread for its scope and swallows one that the scope raised.
class SigpipeGuard {
public:
    SigpipeGuard() {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_previous);
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    }
    ~SigpipeGuard() {
        if (!m_wasPending) {
            sigset_t pending;
            sigpending(&pending);
            if (sigismember(&pending, SIGPIPE) == 1) {
                const timespec now{};
                sigtimedwait(&m_pipe, nullptr, &now);
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

private:
    sigset_t m_pipe;
    sigset_t m_previous;
    bool m_wasPending = false;
};

}  // namespace

SslContext makeSslContext(bool server) {
    SslContext context(SSL_CTX_new(server ? TLS_server_method() : TLS_client_method()));
    if (!context) {
        throw StreamError(StreamFailure::Tls, "cannot create a TLS context: " + takeTlsErrors());
    }
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
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

TlsChannel::TlsChannel(Socket socket, SSL_CTX* context)
    : m_socket(std::move(socket)), m_ssl(SSL_new(context)) {
    if (!m_ssl || SSL_set_fd(m_ssl.get(), m_socket.fd()) != 1) {
        throw StreamError(StreamFailure::Tls, "cannot set up TLS: " + takeTlsErrors());
    }
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
    SigpipeGuard guard;
    for (;;) {
        ERR_clear_error();
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
        if (!settle(result, timeoutMs, "TLS handshake")) {
            throw StreamError(StreamFailure::Tls, "TLS handshake failed: connection closed");
        }
    }
}

bool TlsChannel::settle(int result, int timeoutMs, const char* action) {
    const int savedErrno = errno;
    const int error = SSL_get_error(m_ssl.get(), result);
    switch (error) {
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
            if (!waitFor(m_socket.fd(), error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT,
                         timeoutMs)) {
                throw StreamError(StreamFailure::TimedOut, std::string(action) +
                                                               ": no progress within " +
                                                               std::to_string(timeoutMs) + " ms");
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
    SigpipeGuard guard;
    for (;;) {
        ERR_clear_error();
        errno = 0;
        std::size_t got = 0;
        const int result = SSL_read_ex(m_ssl.get(), buffer, size, &got);
        if (result == 1) {
            return got;
        }
        if (!settle(result, timeoutMs, "TLS receive")) {
            return 0;
        }
    }
}

void TlsChannel::writeAll(const unsigned char* data, std::size_t size, int timeoutMs) {
    SigpipeGuard guard;
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
        if (!settle(result, timeoutMs, "TLS send")) {
            throw StreamError(StreamFailure::Closed, "TLS send failed: connection closed");
        }
    }
}

}  // namespace Ostrelink::Network
