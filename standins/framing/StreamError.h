#pragma once

#include <stdexcept>
#include <string>

namespace Ostrelink::Network {

// What went wrong on a stream, so that callers can word their own message around it.
enum class StreamFailure {
    Closed,          // the peer closed the connection between frames
    ClosedMidFrame,  // the peer closed the connection inside a frame
    TimedOut,        // no progress within the time-out
    Oversize,        // a frame length above the limit
    Io,              // a socket error
    Unsent,          // the peer was gone before a write had sent any byte
    Tls,             // a TLS error, verification included
};

class StreamError : public std::runtime_error {
public:
    StreamError(StreamFailure failure, const std::string& text)
        : std::runtime_error(text), m_failure(failure) {}
    StreamFailure failure() const { return m_failure; }

private:
    StreamFailure m_failure;
};

}  // namespace Ostrelink::Network
