#pragma once

#include <openssl/ssl.h>
#include <ostrelink/ITransport.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/Calls.h"
#include "common/ChildProcess.h"
#include "common/HostLibrary.h"
#include "common/Messages.h"
#include "common/TestCertificates.h"

using Ostrelink::Native::Interfaces::ITransport;

// One connection of a TestPeer, as its handler sees it: plain TCP, or TLS 1.2 or newer (1.3 with
// OpenSSL's defaults, session tickets after the handshake included) with the test PKI's server
// certificate. TLS records go out through a send of ours with MSG_NOSIGNAL, so a client that went
// away is an exception, never a SIGPIPE. Reads block, 5 s at most, then throw.
class PeerLink {
public:
    // Runs the server handshake when tls is given.
    PeerLink(int fd, SSL_CTX* tls);
    ~PeerLink();
    PeerLink(const PeerLink&) = delete;
    PeerLink& operator=(const PeerLink&) = delete;

    int fd() const { return m_fd; }
    // Up to size bytes of the stream; 0 once the client has closed it.
    std::size_t receive(unsigned char* buffer, std::size_t size);
    // The pieces in one send, each piece as a TLS record of its own.
    void send(const std::vector<Bytes>& pieces);
    // TLS: records that carry no data, sent now.
    void sendSessionTicket();
    void sendKeyUpdate();
    // Returns once the client's kernel has acknowledged all that was sent, so a client that looks
    // now finds it; throws after 10 s.
    void waitUntilDelivered() const;
    // Ends the stream (after a close_notify on TLS) and waits until the client's kernel has that.
    void hangUp();

private:
    void handshake();
    // TLS: the records OpenSSL wrote, in one send; reading more from the socket into OpenSSL.
    void flush();
    bool pull();

    int m_fd;
    SSL* m_ssl = nullptr;
    BIO* m_in = nullptr;
    BIO* m_out = nullptr;
};

// A tiny TCP or TLS peer on 127.0.0.1 for misbehaving on purpose. Each accepted connection runs
// the handler on a thread of its own, with a blocking socket (5 s time-outs), and is closed when
// the handler returns. The destructor stops accepting, shuts down the connections still open
// (which ends the waits of their handlers) and joins every handler; handlers that wait otherwise
// should watch stopping().
class TestPeer {
public:
    enum class Kind { Tcp, Tls };
    using Handler = std::function<void(PeerLink& link, int connectionIndex)>;
    explicit TestPeer(Handler handler, Kind kind = Kind::Tcp);
    ~TestPeer();
    TestPeer(const TestPeer&) = delete;
    TestPeer& operator=(const TestPeer&) = delete;

    unsigned short port() const { return m_port; }
    int connections() const { return m_connections; }
    bool stopping() const { return m_stop; }

private:
    struct ContextDeleter {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };
    std::unique_ptr<SSL_CTX, ContextDeleter> m_tls;
    int m_listener = -1;
    unsigned short m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_connections{0};
    std::mutex m_openMutex;
    std::set<int> m_open;
    std::thread m_thread;
};

// Raw frame helpers for test peers: blocking, no limits. readRawFrame returns false at a clean
// end of stream.
bool readRawFrame(PeerLink& link, Bytes& payload);
Bytes frameOf(const Bytes& payload);
void writeRaw(int fd, const Bytes& bytes);
void writeRaw(PeerLink& link, const Bytes& bytes);
void writeRawFrame(PeerLink& link, const Bytes& payload);
// Waits until the peer closes or the test peer stops; never answers.
void waitForClose(PeerLink& link, const TestPeer& peer);

// One side tells the other that something happened: raise() once, wait() until then (10 s at
// most, then it throws). For a test and its peer's handler, in place of sleeps.
class Signal {
public:
    void raise();
    void wait();

private:
    std::mutex m_mutex;
    std::condition_variable m_raised;
    bool m_isRaised = false;
};

// What a peer does on its first connection between two commands, one row each: after its first
// reply and before the second command, which is sent only once the peer has done it and the
// client's kernel holds all of it. Nothing more; a frame nobody asked for, once the reply was read;
// one right behind the reply in the same send (on TLS a record of its own, so that it lies in
// OpenSSL's read-ahead); a hang-up, as an idle time-out or a restart does; on TLS also a session
// ticket and a key update, records that carry no data. Each row runs against a new peer of kind,
// exchange(port, message) sending a message to it and returning the reply. The second command
// must get its own reply, go out once, and ride the first connection exactly when the peer sent
// nothing more that carries data.
using Exchange = std::function<Bytes(unsigned short port, const Bytes& message)>;
void expectEachCommandGetsItsOwnReply(TestPeer::Kind kind, const Exchange& exchange);

// The staged ostrelink-server as a child process, ready once it prints "listening on ADDR:PORT".
// Its standard error goes to a file. The destructor stops it.
class ServerProcess {
public:
    explicit ServerProcess(const std::vector<std::string>& arguments);
    ~ServerProcess();
    unsigned short port() const { return m_port; }
    pid_t pid() const { return m_child->pid(); }
    // Sends SIGTERM and returns the status as waitpid gives it (SIGKILL after 10 s).
    int stop() { return m_child->stop(); }
    std::string err() const;
    // VmRSS of the server process, from /proc.
    long residentKiB() const;
    static std::string executable();

private:
    std::string m_errorFile;
    std::unique_ptr<ChildProcess> m_child;
    unsigned short m_port = 0;
};

// A client library of the staged tree and the objects it makes.
class ClientLibrary {
public:
    static ClientLibrary& tcp();
    static ClientLibrary& tls();
    std::unique_ptr<ITransport> connect(const std::string& host, unsigned short port) const;

private:
    explicit ClientLibrary(const std::string& name);
    HostLibrary m_library;
};

inline Bytes roundTrip(ITransport& transport, Bytes message) {
    return sendAndRead(&transport, std::move(message));
}

// The connections of this process to 127.0.0.1:port: a test peer's own sockets, which its
// threads close in their own time, don't count.
int connectionsTo(unsigned short port);
// A connected blocking TCP socket to 127.0.0.1:port (10 s receive time-out); -1 if refused.
int connectRaw(unsigned short port);
// A port that nothing listens on (bound once, then closed).
unsigned short unusedPort();
