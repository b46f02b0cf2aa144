#pragma once

#include <string>

namespace Ostrelink::Network {

// Owns one socket descriptor. Every socket made here is close-on-exec and starts non-blocking,
// so that connecting waits with poll() against a time-out; a channel then makes its socket block
// with time-outs of the socket's own (SO_RCVTIMEO, SO_SNDTIMEO), which cost no call per read.
class Socket {
public:
    Socket() = default;
    explicit Socket(int fd) : m_fd(fd) {}
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int fd() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    // Ends both directions without closing the descriptor, which wakes a thread polling it.
    void shutdownBoth() const;

    // Throws StreamError (Io).
    void makeBlocking();
    // The longest a blocking receive or send then waits. Each is set only when it differs from
    // the last one set, since each setting is a system call. False, with errno set, if that
    // fails; they don't throw, so that the TLS channel's BIO can call them.
    bool limitReceive(int timeoutMs) noexcept;
    bool limitSend(int timeoutMs) noexcept;

    // Connects to a numeric IPv4 address; throws StreamError (Io or TimedOut).
    static Socket connectTo(const std::string& host, unsigned short port, int timeoutMs);
    // Whether an idle connection can still be used: false once the peer closed it or sent
    // anything unasked.
    bool idleAndOpen() const;

private:
    int m_fd = -1;
    int m_receiveLimitMs = -1;
    int m_sendLimitMs = -1;
};

// Waits for events on fd; true when they came, false on time-out. Retries on EINTR.
bool waitFor(int fd, short events, int timeoutMs);

// Parses a dotted decimal IPv4 address; false if the text is anything else.
bool parseIpv4(const std::string& text, unsigned char (&address)[4]);

std::string errnoText(int error);

}  // namespace Ostrelink::Network
