#include "NetworkTestSupport.h"

#include <ostrelink/RuntimeFactories.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

// A TCP socket bound to 127.0.0.1:port (0: any), or connected to it; -1 if that fails.
int loopbackSocket(unsigned short port, bool connect, int flags = 0) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const auto* where = reinterpret_cast<sockaddr*>(&address);
    if ((connect ? ::connect(fd, where, sizeof(address)) : ::bind(fd, where, sizeof(address))) !=
        0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

unsigned short portOf(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

}  // namespace

TestPeer::TestPeer(Handler handler) {
    m_listener = loopbackSocket(0, false, SOCK_NONBLOCK);
    if (m_listener < 0 || ::listen(m_listener, 16) != 0) {
        throw std::runtime_error("test peer cannot listen");
    }
    m_port = portOf(m_listener);
    m_thread = std::thread([this, handler = std::move(handler)] {
        std::vector<std::thread> workers;
        while (!m_stop) {
            pollfd entry{m_listener, POLLIN, 0};
            const int fd = ::poll(&entry, 1, 50) > 0
                               ? ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)
                               : -1;
            if (fd < 0) {
                continue;
            }
            // Blocking, but never for ever: a handler waiting on a silent client gives up.
            const timeval limit{5, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
            ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
            workers.emplace_back([fd, index = m_connections++, &handler] {
                try {
                    handler(fd, index);
                } catch (const std::exception&) {
                    // A client that went away mid-exchange is what several tests provoke.
                }
                ::close(fd);
            });
        }
        for (std::thread& worker : workers) {
            worker.join();
        }
    });
}

TestPeer::~TestPeer() {
    m_stop = true;
    m_thread.join();
    ::close(m_listener);
}

bool readRawFrame(int fd, Bytes& payload) {
    unsigned char header[4];
    const ssize_t got = ::recv(fd, header, 4, MSG_WAITALL);
    if (got == 0) {
        return false;
    }
    if (got == 4) {
        payload.assign((std::size_t{header[0]} << 24) | (std::size_t{header[1]} << 16) |
                           (std::size_t{header[2]} << 8) | std::size_t{header[3]},
                       0);
    }
    if (got != 4 || ::recv(fd, payload.data(), payload.size(), MSG_WAITALL) !=
                        static_cast<ssize_t>(payload.size())) {
        throw std::runtime_error("test peer: stream ended");
    }
    return true;
}

void writeRaw(int fd, const Bytes& bytes) {
    if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("test peer: send failed");
    }
}

void writeRawFrame(int fd, const Bytes& payload) {
    Bytes frame;
    for (const int shift : {24, 16, 8, 0}) {
        frame.push_back(static_cast<unsigned char>(payload.size() >> shift));
    }
    frame.insert(frame.end(), payload.begin(), payload.end());
    writeRaw(fd, frame);
}

void waitForClose(int fd, const TestPeer& peer) {
    unsigned char byte;
    while (!peer.stopping()) {
        pollfd entry{fd, POLLIN, 0};
        if (::poll(&entry, 1, 50) > 0 && ::recv(fd, &byte, 1, 0) <= 0) {
            return;
        }
    }
}

std::string ServerProcess::executable() {
    return std::string(OSTRELINK_STAGE_DIR) + "/bin/ostrelink-server";
}

ServerProcess::ServerProcess(const std::vector<std::string>& arguments) {
    static std::atomic<int> servers{0};
    ChildProcess::Options options;
    options.captureStdout = true;
    options.errorFile = m_errorFile = "/tmp/ostrelink-server-" + std::to_string(::getpid()) + "-" +
                                      std::to_string(servers++) + ".err";
    m_child = std::make_unique<ChildProcess>(executable(), arguments, options);
    std::string line;
    while (line.rfind("listening on ", 0) != 0) {
        line = m_child->readLine(30000);  // throws if the server ends first
    }
    m_port = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
}

ServerProcess::~ServerProcess() {
    m_child.reset();
    std::remove(m_errorFile.c_str());
}

std::string ServerProcess::err() const {
    std::ifstream file(m_errorFile);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

long ServerProcess::residentKiB() const {
    std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
    std::string key;
    long value = -1;
    while (status >> key && !(key == "VmRSS:" && status >> value)) {
    }
    return value;
}

ClientLibrary::ClientLibrary(const std::string& name) : m_library(HostLibrary::stagedPath(name)) {}

ClientLibrary& ClientLibrary::tcp() {
    static ClientLibrary library("OstrelinkTcpClient");
    return library;
}

ClientLibrary& ClientLibrary::tls() {
    static ClientLibrary library("OstrelinkTcpTlsClient");
    return library;
}

std::unique_ptr<ITransport> ClientLibrary::connect(const std::string& host,
                                                   unsigned short port) const {
    std::unique_ptr<ITransport> transport(
        m_library.get<Ostrelink::Native::Interfaces::CreateTransportChannelFn>(
            "CreateTransportChannel")(host, port));
    transport->Initialize(8, 2, 0);
    return transport;
}

int connectRaw(unsigned short port) {
    const int fd = loopbackSocket(port, true);
    const timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    return fd;
}

unsigned short unusedPort() {
    const int fd = loopbackSocket(0, false);
    const unsigned short port = portOf(fd);
    ::close(fd);
    return port;
}
