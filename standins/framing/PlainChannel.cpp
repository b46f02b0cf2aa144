#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "ByteChannel.h"
#include "Deadline.h"
#include "StreamError.h"

namespace Ostrelink::Network {

namespace {

StreamError timedOut(int timeoutMs) {
    return StreamError(StreamFailure::TimedOut,
                       "no data within " + std::to_string(timeoutMs) + " ms");
}

StreamError cannotLimit() {
    return StreamError(StreamFailure::Io, "cannot set the time-out: " + errnoText(errno));
}

StreamError notTaken(int timeoutMs) {
    return StreamError(StreamFailure::TimedOut, "the peer did not take the data within " +
                                                    std::to_string(timeoutMs) + " ms");
}

}  // namespace

PlainChannel::PlainChannel(Socket socket) : m_socket(std::move(socket)) {
    m_socket.makeBlocking();
}

std::size_t PlainChannel::receive(unsigned char* buffer, std::size_t size, int timeoutMs) {
    if (!m_socket.limitReceive(timeoutMs)) {
        throw cannotLimit();
    }
    for (;;) {
        const ssize_t got = ::recv(m_socket.fd(), buffer, size, 0);
        if (got >= 0) {
            return static_cast<std::size_t>(got);
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            throw timedOut(timeoutMs);
        }
        if (errno != EINTR) {
            throw StreamError(StreamFailure::Io, "receive failed: " + errnoText(errno));
        }
    }
}

std::size_t PlainChannel::readSome(unsigned char* buffer, std::size_t size, int timeoutMs) {
    if (m_begin == m_end) {
        // A read as large as the buffer gains nothing from it.
        if (size >= sizeof(m_buffer)) {
            return receive(buffer, size, timeoutMs);
        }
        m_begin = 0;
        m_end = receive(m_buffer, sizeof(m_buffer), timeoutMs);
    }
    const std::size_t count = std::min(size, m_end - m_begin);
    std::memcpy(buffer, m_buffer + m_begin, count);
    m_begin += count;
    return count;
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
    const Deadline deadline(timeoutMs);
    // sendmsg rather than writev: only the former takes MSG_NOSIGNAL.
    while (message.msg_iovlen > 0) {
        const int left = deadline.leftMs();
        if (left == 0) {
            throw notTaken(timeoutMs);
        }
        if (!m_socket.limitSend(left)) {
            throw cannotLimit();
        }
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
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            throw notTaken(timeoutMs);
        }
        const bool gone = errno == EPIPE || errno == ECONNRESET;
        throw StreamError(!anySent && gone ? StreamFailure::Unsent : StreamFailure::Io,
                          "send failed: " + errnoText(errno));
    }
}

}  // namespace Ostrelink::Network
