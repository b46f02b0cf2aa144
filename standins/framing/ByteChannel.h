#pragma once

#include <cstddef>
#include <utility>

#include "Socket.h"

namespace Ostrelink::Network {

// A connected byte stream, plain or TLS. One thread uses a channel at a time.
class ByteChannel {
public:
    virtual ~ByteChannel() = default;
    // Reads at most size bytes, waiting up to timeoutMs for the first of them. Returns 0 once
    // the peer has closed the stream. Throws StreamError on time-out and on failures.
    virtual std::size_t readSome(unsigned char* buffer, std::size_t size, int timeoutMs) = 0;
    // Writes everything, waiting up to timeoutMs each time the peer stops taking bytes.
    virtual void writeAll(const unsigned char* data, std::size_t size, int timeoutMs) = 0;
    // Writes head and then data, in one system call whenever the peer takes them at once.
    virtual void writeGathered(const unsigned char* head, std::size_t headSize,
                               const unsigned char* data, std::size_t size, int timeoutMs) = 0;
    virtual const Socket& socket() const = 0;
};

// A plain TCP stream. Writes never raise SIGPIPE.
class PlainChannel : public ByteChannel {
public:
    explicit PlainChannel(Socket socket) : m_socket(std::move(socket)) {}
    std::size_t readSome(unsigned char* buffer, std::size_t size, int timeoutMs) override;
    void writeAll(const unsigned char* data, std::size_t size, int timeoutMs) override;
    void writeGathered(const unsigned char* head, std::size_t headSize, const unsigned char* data,
                       std::size_t size, int timeoutMs) override;
    const Socket& socket() const override { return m_socket; }

private:
    Socket m_socket;
};

}  // namespace Ostrelink::Network
