#include "Server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <iostream>
#include <utility>
#include <vector>

#include "Frame.h"
#include "StreamError.h"

namespace Ostrelink::Network::Server {

namespace {

void logLine(const std::string& text) {
    std::cerr << "ostrelink-server: " << text << std::endl;
}

std::string describe(const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string tlsFailure(const std::string& what, const std::string& file) {
    return "cannot use " + what + " " + file + ": " + takeTlsErrors();
}

std::int64_t ticksNow() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

// While the server is full, how often it looks again for a connection gone idle.
constexpr int fullPollMs = 50;

}  // namespace

Server::Server(const ServerOptions& options, const HostedRuntime& runtime)
    : m_options(options), m_runtime(runtime) {
    if (options.tls()) {
        m_tls = makeSslContext(true);
        SSL_CTX* context = m_tls.get();
        // No session tickets: clients don't resume sessions, and bytes that arrive on an idle
        // connection make a client drop it as stale.
        SSL_CTX_set_num_tickets(context, 0);
        if (SSL_CTX_use_certificate_chain_file(context, options.tlsCert.c_str()) != 1) {
            throw std::runtime_error(tlsFailure("the certificate", options.tlsCert));
        }
        if (SSL_CTX_use_PrivateKey_file(context, options.tlsKey.c_str(), SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_check_private_key(context) != 1) {
            throw std::runtime_error(tlsFailure("the key", options.tlsKey));
        }
        if (options.mutualTls()) {
            if (SSL_CTX_load_verify_locations(context, options.tlsClientCa.c_str(), nullptr) != 1) {
                throw std::runtime_error(tlsFailure("the client CA file", options.tlsClientCa));
            }
            STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(options.tlsClientCa.c_str());
            if (names != nullptr) {
                SSL_CTX_set_client_CA_list(context, names);
            }
            SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        }
    }

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options.port);
    ::inet_pton(AF_INET, options.listenAddress.c_str(), &address.sin_addr);
    m_listener = Socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_listener.valid()) {
        throw std::runtime_error("cannot create a socket: " + errnoText(errno));
    }
    const int on = 1;
    ::setsockopt(m_listener.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (::bind(m_listener.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
            0 ||
        ::listen(m_listener.fd(), SOMAXCONN) != 0) {
        throw std::runtime_error("cannot listen on " + options.listenAddress + ":" +
                                 std::to_string(options.port) + ": " + errnoText(errno));
    }
    socklen_t size = sizeof(address);
    ::getsockname(m_listener.fd(), reinterpret_cast<sockaddr*>(&address), &size);
    m_port = ntohs(address.sin_port);
    m_sessionEnded = Socket(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!m_sessionEnded.valid()) {
        throw std::runtime_error("cannot create an eventfd: " + errnoText(errno));
    }
}

Server::~Server() {
    stopSessions();
}

std::string Server::endpoint() const {
    return m_options.listenAddress + ":" + std::to_string(m_port);
}

bool Server::run(int stopFd) {
    for (;;) {
        reapFinished();
        const bool full = m_sessions.size() >= static_cast<std::size_t>(m_options.maxConnections);
        if (full) {
            makeRoom();
        }
        // At capacity the listener is not watched: a new client waits in its queue until a
        // session ends, rather than being accepted only to be closed.
        pollfd entries[3] = {{stopFd, POLLIN, 0},
                             {m_sessionEnded.fd(), POLLIN, 0},
                             {full ? -1 : m_listener.fd(), POLLIN, 0}};
        const int ready = ::poll(entries, 3, full ? fullPollMs : -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::runtime_error("poll failed: " + errnoText(errno));
        }
        if (entries[0].revents != 0) {
            break;
        }
        if (entries[1].revents != 0) {
            eventfd_t ended = 0;
            ::eventfd_read(m_sessionEnded.fd(), &ended);
        }
        if (entries[2].revents != 0) {
            accept();
        }
    }
    return drain();
}

void Server::makeRoom() {
    std::vector<std::pair<std::int64_t, Session*>> idle;
    for (Session& session : m_sessions) {
        const std::int64_t since = session.idleSince.load();
        if (since == Session::closing && !session.finished) {
            return;
        }
        if (since >= 0) {
            idle.emplace_back(since, &session);
        }
    }
    if (idle.empty() || !waitFor(m_listener.fd(), POLLIN, 0)) {
        return;
    }
    std::sort(idle.begin(), idle.end());
    const std::int64_t now = ticksNow();
    for (auto [since, session] : idle) {
        // Bytes waiting on it are a frame about to be read: not idle after all.
        if (waitFor(session->shutdownHandle.fd(), POLLIN, 0) ||
            !session->idleSince.compare_exchange_strong(since, Session::closing)) {
            continue;
        }
        session->shutdownHandle.shutdownBoth();
        const auto idleMs = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::duration(now - since));
        logLine("connection from " + session->peer + " closed: idle for " +
                std::to_string(idleMs.count()) + " ms, the longest of " +
                std::to_string(m_sessions.size()) +
                " connections, to make room for a waiting client");
        return;
    }
}

bool Server::drain() {
    // New clients are refused from now on, not queued behind a server that will never serve
    // them.
    m_listener = Socket();
    // Ending only the receiving side lets a session finish its command and send the reply; its
    // next read then sees the end of the stream, and a session waiting for a request ends now.
    for (Session& session : m_sessions) {
        ::shutdown(session.shutdownHandle.fd(), SHUT_RD);
    }
    std::unique_lock<std::mutex> lock(m_finishedMutex);
    const bool drained = m_finishedChanged.wait_for(
        lock, std::chrono::milliseconds(m_options.drainTimeoutMs), [this] {
            for (const Session& session : m_sessions) {
                if (!session.finished) {
                    return false;
                }
            }
            return true;
        });
    lock.unlock();
    if (drained) {
        stopSessions();
        return true;
    }
    std::string peers;
    std::size_t count = 0;
    for (Session& session : m_sessions) {
        if (!session.finished) {
            session.shutdownHandle.shutdownBoth();
            peers += (count++ == 0 ? "" : ", ") + session.peer;
        }
    }
    logLine("the drain time of " + std::to_string(m_options.drainTimeoutMs) +
            " ms ran out: dropped the command in progress on " + std::to_string(count) +
            " connection(s): " + peers);
    return false;
}

void Server::accept() {
    sockaddr_in peerAddress{};
    socklen_t size = sizeof(peerAddress);
    Socket socket(::accept4(m_listener.fd(), reinterpret_cast<sockaddr*>(&peerAddress), &size,
                            SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.valid()) {
        // The peer may have gone already, or descriptors ran out: neither stops the server.
        const int error = errno;
        if (error != EAGAIN && error != EWOULDBLOCK && error != ECONNABORTED && error != EINTR) {
            logLine("accept failed: " + errnoText(error));
        }
        // Out of descriptors, the connection stays queued and the listener readable: pause
        // rather than spin until a connection ends.
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return;
    }
    const std::string peer = describe(peerAddress);
    const int on = 1;
    ::setsockopt(socket.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    Socket shutdownHandle(::fcntl(socket.fd(), F_DUPFD_CLOEXEC, 0));
    if (!shutdownHandle.valid()) {
        logLine("connection from " + peer + " closed: " + errnoText(errno));
        return;
    }
    Session& session = m_sessions.emplace_back();
    session.shutdownHandle = std::move(shutdownHandle);
    session.peer = peer;
    session.thread = std::thread(&Server::serve, this, std::ref(session), std::move(socket), peer);
}

void Server::serve(Session& session, Socket socket, std::string peer) {
    try {
        std::unique_ptr<ByteChannel> channel;
        if (m_tls) {
            channel = TlsChannel::accept(std::move(socket), m_tls.get(), m_options.idleTimeoutMs);
        } else {
            channel = std::make_unique<PlainChannel>(std::move(socket));
        }
        // Once a frame has begun, the connection is busy unless it was already taken to make
        // room; then the frame is dropped with the connection, as if it had come a moment later.
        bool closing = false;
        const std::function<void()> frameBegun = [&session, &closing] {
            std::int64_t seen = session.idleSince.load();
            while (seen != Session::closing &&
                   !session.idleSince.compare_exchange_weak(seen, Session::busy)) {
            }
            closing = seen == Session::closing;
        };
        for (;;) {
            session.idleSince.store(ticksNow());
            auto request =
                readFrame(*channel, m_options.maxFrameBytes, m_options.idleTimeoutMs, frameBegun);
            if (!request || closing) {
                break;
            }
            std::vector<unsigned char> reply = m_runtime.handle(*request);
            if (reply.size() > m_options.maxFrameBytes) {
                reply = m_runtime.errorReply(
                    *request, "ostrelink-server: the reply of " + std::to_string(reply.size()) +
                                  " bytes exceeds the frame limit of " +
                                  std::to_string(m_options.maxFrameBytes) + " bytes");
            }
            writeFrame(*channel, reply.data(), reply.size(), m_options.idleTimeoutMs);
        }
    } catch (const std::exception& error) {
        logLine("connection from " + peer + " closed: " + error.what());
    }
    // The session's second descriptor keeps the connection open until the session is reaped,
    // so closing the stream's own is not enough to let the peer know.
    session.shutdownHandle.shutdownBoth();
    {
        std::lock_guard<std::mutex> lock(m_finishedMutex);
        session.finished = true;
    }
    m_finishedChanged.notify_all();
    ::eventfd_write(m_sessionEnded.fd(), 1);
}

void Server::reapFinished() {
    for (auto it = m_sessions.begin(); it != m_sessions.end();) {
        if (it->finished) {
            it->thread.join();
            it = m_sessions.erase(it);
        } else {
            ++it;
        }
    }
}

void Server::stopSessions() {
    for (Session& session : m_sessions) {
        session.shutdownHandle.shutdownBoth();
    }
    for (Session& session : m_sessions) {
        session.thread.join();
    }
    m_sessions.clear();
}

}  // namespace Ostrelink::Network::Server
