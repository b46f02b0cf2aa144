#pragma once

#include <cstddef>
#include <utility>

#include "Socket.h"

namespace Ostrelink::Network {

// A connected byte stream, plain or TLS. One thread uses a channel at a time.
class ByteChannel {
public:
    virtual ~ByteChannel() = default;
    // Reads at most size bytes, returning within timeoutMs (a TLS record dripped byte by byte
    // does not stretch it). Returns 0 once the peer has closed the stream. Throws StreamError on
    // time-out and on failures.
    virtual std::size_t readSome(unsigned char* buffer, std::size_t size, int timeoutMs) = 0;
    // Writes everything within timeoutMs in all: a peer that takes a byte now and then can't hold
    // the writer longer.
    virtual void writeAll(const unsigned char* data, std::size_t size, int timeoutMs) = 0;
    // Writes head and then data, in one system call whenever the peer takes them at once; the
    // same bound as writeAll.
    virtual void writeGathered(const unsigned char* head, std::size_t headSize,
                               const unsigned char* data, std::size_t size, int timeoutMs) = 0;
    virtual const Socket& socket() const = 0;
    // Whether the connection is unfit for a new request: the peer closed it, or bytes came that
    // no read has taken, in our buffers or the kernel's, and they would pass for the start of the
    // next reply. With nothing buffered it costs one poll that does not wait.
    virtual bool pendingInputOrClosed() = 0;
};

// A plain TCP stream. Writes never raise SIGPIPE. The socket blocks, with the time-out set on
// it (SO_RCVTIMEO, SO_SNDTIMEO) rather than a poll before each call, and reads go through a small
// buffer, so that a small frame's length and payload come in one system call.
class PlainChannel : public ByteChannel {
public:
    // Throws StreamError (Io) if the socket can't be made blocking.
    explicit PlainChannel(Socket socket);
    std::size_t readSome(unsigned char* buffer, std::size_t size, int timeoutMs) override;
    void writeAll(const unsigned char* data, std::size_t size, int timeoutMs) override;
    void writeGathered(const unsigned char* head, std::size_t headSize, const unsigned char* data,
                       std::size_t size, int timeoutMs) override;
    const Socket& socket() const override { return m_socket; }
    bool pendingInputOrClosed() override { return m_begin < m_end || !m_socket.idleAndOpen(); }

private:
    std::size_t receive(unsigned char* buffer, std::size_t size, int timeoutMs);

    Socket m_socket;
    unsigned char m_buffer[4096];
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

}  // namespace Ostrelink::Network
