#include "Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "StreamError.h"

namespace Ostrelink::Network {

Socket::~Socket() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

Socket::Socket(Socket&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1)),
      m_receiveLimitMs(other.m_receiveLimitMs),
      m_sendLimitMs(other.m_sendLimitMs) {}

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = std::exchange(other.m_fd, -1);
        m_receiveLimitMs = other.m_receiveLimitMs;
        m_sendLimitMs = other.m_sendLimitMs;
    }
    return *this;
}

void Socket::makeBlocking() {
    const int flags = ::fcntl(m_fd, F_GETFL);
    if (flags < 0 || ::fcntl(m_fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        throw StreamError(StreamFailure::Io,
                          "cannot make the socket blocking: " + errnoText(errno));
    }
}

namespace {

bool setLimit(int fd, int option, int timeoutMs, int& current) noexcept {
    if (timeoutMs == current) {
        return true;
    }
    // Zero would mean no time-out at all.
    const int ms = std::max(timeoutMs, 1);
    const timeval limit{ms / 1000, static_cast<suseconds_t>(ms % 1000) * 1000};
    if (::setsockopt(fd, SOL_SOCKET, option, &limit, sizeof(limit)) != 0) {
        return false;
    }
    current = timeoutMs;
    return true;
}

}  // namespace

bool Socket::limitReceive(int timeoutMs) noexcept {
    return setLimit(m_fd, SO_RCVTIMEO, timeoutMs, m_receiveLimitMs);
}

bool Socket::limitSend(int timeoutMs) noexcept {
    return setLimit(m_fd, SO_SNDTIMEO, timeoutMs, m_sendLimitMs);
}

void Socket::shutdownBoth() const {
    if (m_fd >= 0) {
        ::shutdown(m_fd, SHUT_RDWR);
    }
}

std::string errnoText(int error) {
    char buffer[256] = {};
    // The GNU variant may return a static text instead of filling the buffer.
    return ::strerror_r(error, buffer, sizeof(buffer));
}

bool parseIpv4(const std::string& text, unsigned char (&address)[4]) {
    in_addr parsed{};
    if (::inet_pton(AF_INET, text.c_str(), &parsed) != 1) {
        return false;
    }
    std::memcpy(address, &parsed.s_addr, 4);
    return true;
}

bool waitFor(int fd, short events, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry{fd, events, 0};
        const int ready = ::poll(&entry, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready > 0) {
            return true;
        }
        if (ready == 0) {
            return false;
        }
        if (errno != EINTR) {
            throw StreamError(StreamFailure::Io, "poll failed: " + errnoText(errno));
        }
    }
}

Socket Socket::connectTo(const std::string& host, unsigned short port, int timeoutMs) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    if (::inet_pton(AF_INET, host.c_str(), &peer.sin_addr) != 1) {
        throw StreamError(StreamFailure::Io, "not a numeric IPv4 address");
    }
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket.valid()) {
        throw StreamError(StreamFailure::Io, "cannot create a socket: " + errnoText(errno));
    }
    const int on = 1;
    ::setsockopt(socket.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)) != 0) {
        if (errno != EINPROGRESS) {
            throw StreamError(StreamFailure::Io, errnoText(errno));
        }
        if (!waitFor(socket.fd(), POLLOUT, timeoutMs)) {
            throw StreamError(StreamFailure::TimedOut,
                              "timed out after " + std::to_string(timeoutMs) + " ms");
        }
        int error = 0;
        socklen_t size = sizeof(error);
        ::getsockopt(socket.fd(), SOL_SOCKET, SO_ERROR, &error, &size);
        if (error != 0) {
            throw StreamError(StreamFailure::Io, errnoText(error));
        }
    }
    return socket;
}

bool Socket::idleAndOpen() const {
    pollfd entry{m_fd, POLLIN, 0};
    return m_fd >= 0 && ::poll(&entry, 1, 0) == 0;
}

}  // namespace Ostrelink::Network
