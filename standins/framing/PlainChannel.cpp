#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "ByteChannel.h"
#include "StreamError.h"

namespace Ostrelink::Network {

namespace {

StreamError timedOut(int timeoutMs) {
    return StreamError(StreamFailure::TimedOut,
                       "no data within " + std::to_string(timeoutMs) + " ms");
}

}  // namespace

std::size_t PlainChannel::readSome(unsigned char* buffer, std::size_t size, int timeoutMs) {
    for (;;) {
        const ssize_t got = ::recv(m_socket.fd(), buffer, size, 0);
        if (got >= 0) {
            return static_cast<std::size_t>(got);
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            throw StreamError(StreamFailure::Io, "receive failed: " + errnoText(errno));
        }
        if (!waitFor(m_socket.fd(), POLLIN, timeoutMs)) {
            throw timedOut(timeoutMs);
        }
    }
}

void PlainChannel::writeAll(const unsigned char* data, std::size_t size, int timeoutMs) {
    while (size > 0) {
        const ssize_t sent = ::send(m_socket.fd(), data, size, MSG_NOSIGNAL);
        if (sent >= 0) {
            data += sent;
            size -= static_cast<std::size_t>(sent);
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            throw StreamError(StreamFailure::Io, "send failed: " + errnoText(errno));
        }
        if (!waitFor(m_socket.fd(), POLLOUT, timeoutMs)) {
            throw StreamError(StreamFailure::TimedOut,
                              "the peer took no data within " + std::to_string(timeoutMs) + " ms");
        }
    }
}

}  // namespace Ostrelink::Network
