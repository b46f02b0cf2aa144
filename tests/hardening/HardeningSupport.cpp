#include "hardening/HardeningSupport.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

RawConnection::~RawConnection() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

RawConnection::RawConnection(RawConnection&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1)) {}

void RawConnection::reset() {
    if (m_fd >= 0) {
        resetConnection(std::exchange(m_fd, -1));
    }
}

void sendBytes(int fd, const Bytes& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) {
            return;
        }
        done += static_cast<std::size_t>(sent);
    }
}

void raiseDescriptorLimit(unsigned long wanted) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min<rlim_t>(wanted, limit.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void resetConnection(int fd) {
    const linger abort{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
    ::close(fd);
}
