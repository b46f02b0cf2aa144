#pragma once

#include <string>

#include "common/Messages.h"

// A raw TCP socket owned by scope. reset() ends it with an RST instead of a FIN.
class RawConnection {
public:
    explicit RawConnection(int fd) : m_fd(fd) {}
    ~RawConnection();
    RawConnection(RawConnection&& other) noexcept;
    RawConnection& operator=(RawConnection&&) = delete;
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    int fd() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    void reset();

private:
    int m_fd;
};

// Writes all of bytes, ignoring a peer that has gone.
void sendBytes(int fd, const Bytes& bytes);
// Raises the soft limit of open descriptors to at least wanted, within the hard limit.
void raiseDescriptorLimit(unsigned long wanted);
// Sends an RST on fd and closes it.
void resetConnection(int fd);
