#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

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
    writeGathered(data, size, nullptr, 0, timeoutMs);
}

void PlainChannel::writeGathered(const unsigned char* head, std::size_t headSize,
                                 const unsigned char* data, std::size_t size, int timeoutMs) {
    iovec parts[2] = {{const_cast<unsigned char*>(head), headSize},
                      {const_cast<unsigned char*>(data), size}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    bool anySent = false;
    // sendmsg rather than writev: only the former takes MSG_NOSIGNAL.
    while (message.msg_iovlen > 0) {
        ssize_t sent = ::sendmsg(m_socket.fd(), &message, MSG_NOSIGNAL);
        if (sent >= 0) {
            anySent = anySent || sent > 0;
            while (message.msg_iovlen > 0 &&
                   static_cast<std::size_t>(sent) >= message.msg_iov->iov_len) {
                sent -= static_cast<ssize_t>(message.msg_iov->iov_len);
                ++message.msg_iov;
                --message.msg_iovlen;
            }
            if (message.msg_iovlen > 0) {
                message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + sent;
                message.msg_iov->iov_len -= static_cast<std::size_t>(sent);
            }
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            const bool gone = errno == EPIPE || errno == ECONNRESET;
            throw StreamError(!anySent && gone ? StreamFailure::Unsent : StreamFailure::Io,
                              "send failed: " + errnoText(errno));
        }
        if (!waitFor(m_socket.fd(), POLLOUT, timeoutMs)) {
            throw StreamError(StreamFailure::TimedOut,
                              "the peer took no data within " + std::to_string(timeoutMs) + " ms");
        }
    }
}

}  // namespace Ostrelink::Network
