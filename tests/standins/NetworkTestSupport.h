#pragma once

#include <ostrelink/ITransport.h>

#include <sys/types.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/Calls.h"
#include "common/ChildProcess.h"
#include "common/HostLibrary.h"
#include "common/Messages.h"
#include "common/TestCertificates.h"

using Ostrelink::Native::Interfaces::ITransport;

// A directory under /tmp, removed with everything in it at the end of its scope.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};


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

// The staged ostrelink-server as a child process. Its standard output is read until
// "listening on ADDR:PORT"; standard error goes to a file. The destructor sends SIGTERM and
// reaps it, with SIGKILL as a last resort.
class ServerProcess {
public:
    explicit ServerProcess(const std::vector<std::string>& arguments);
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    unsigned short port() const { return m_port; }
    // Sends SIGTERM and returns the exit status as waitpid gives it.
    int stop();
    // Sends SIGTERM and returns at once; stop() then reaps.
    void terminate() const;
    // VmRSS of the server process, from /proc.
    long residentKiB() const;
    std::string standardError() const;
    std::string standardOutput();

    static std::string executable();
    // Runs the server to its end (bounded), for command lines it should refuse.
    struct Outcome {
        int exitCode;
        std::string standardOutput;
        std::string standardError;
    };
    static Outcome run(const std::vector<std::string>& arguments);

private:
    TemporaryDirectory m_directory;
    std::unique_ptr<ChildProcess> m_child;
    std::string m_output;
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

// SendCommand, then ReadResponse of exactly the announced length, on the calling thread.
Bytes roundTrip(ITransport& transport, Bytes message);

// A connected blocking TCP socket to 127.0.0.1:port; -1 if refused.
int connectRaw(unsigned short port);
// A port that nothing listens on (bound once, then closed).
unsigned short unusedPort();
