#pragma once

#include <ostrelink/ITransport.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/Calls.h"
#include "common/ChildProcess.h"
#include "common/HostLibrary.h"
#include "common/Messages.h"
#include "common/TestCertificates.h"

using Ostrelink::Native::Interfaces::ITransport;

// A tiny TCP peer on 127.0.0.1 for misbehaving on purpose. Each accepted connection runs the
// handler on a thread of its own with a blocking socket (5 s time-outs), and is closed when the
// handler returns. The destructor stops accepting and joins every handler; handlers that wait
// should watch stopping().
class TestPeer {
public:
    using Handler = std::function<void(int fd, int connectionIndex)>;
    explicit TestPeer(Handler handler);
    ~TestPeer();
    TestPeer(const TestPeer&) = delete;
    TestPeer& operator=(const TestPeer&) = delete;

    unsigned short port() const { return m_port; }
    int connections() const { return m_connections; }
    bool stopping() const { return m_stop; }

private:
    int m_listener = -1;
    unsigned short m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_connections{0};
    std::thread m_thread;
};

// Raw frame helpers for test peers: blocking, no limits. readRawFrame returns false at a clean
// end of stream.
bool readRawFrame(int fd, Bytes& payload);
void writeRaw(int fd, const Bytes& bytes);
void writeRawFrame(int fd, const Bytes& payload);
// Waits until the peer closes or the test peer stops; never answers.
void waitForClose(int fd, const TestPeer& peer);

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

// A connected blocking TCP socket to 127.0.0.1:port (10 s receive time-out); -1 if refused.
int connectRaw(unsigned short port);
// A port that nothing listens on (bound once, then closed).
unsigned short unusedPort();
