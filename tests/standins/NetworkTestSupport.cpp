#include "NetworkTestSupport.h"

#include <ostrelink/RuntimeFactories.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
    char name[] = "/tmp/ostrelink-network-test-XXXXXX";
    if (::mkdtemp(name) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = name;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

TestPeer::TestPeer(Handler handler) {
    m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (m_listener < 0 ||
        ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(m_listener, 16) != 0 ||
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("test peer cannot listen");
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this, handler = std::move(handler)] {
        std::vector<std::thread> workers;
        while (!m_stop) {
            pollfd entry{m_listener, POLLIN, 0};
            if (::poll(&entry, 1, 50) <= 0) {
                continue;
            }
            const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                continue;
            }
            // Blocking, but never for ever: a handler waiting on a silent client gives up.
            const timeval limit{5, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
            ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
            const int index = m_connections++;
            workers.emplace_back([fd, index, &handler] {
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

namespace {

bool readAll(int fd, unsigned char* data, std::size_t size, bool endAllowed) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t got = ::recv(fd, data + done, size - done, 0);
        if (got == 0 && done == 0 && endAllowed) {
            return false;
        }
        if (got <= 0) {
            throw std::runtime_error("test peer: stream ended");
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace

bool readRawFrame(int fd, Bytes& payload) {
    unsigned char header[4];
    if (!readAll(fd, header, 4, true)) {
        return false;
    }
    const std::size_t length = (std::size_t{header[0]} << 24) | (std::size_t{header[1]} << 16) |
                               (std::size_t{header[2]} << 8) | std::size_t{header[3]};
    payload.assign(length, 0);
    readAll(fd, payload.data(), length, false);
    return true;
}

void writeRaw(int fd, const Bytes& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) {
            throw std::runtime_error("test peer: send failed");
        }
        done += static_cast<std::size_t>(sent);
    }
}

void writeRawFrame(int fd, const Bytes& payload) {
    const auto length = static_cast<std::uint32_t>(payload.size());
    Bytes frame(4 + payload.size(), 0);
    frame[0] = static_cast<unsigned char>(length >> 24);
    frame[1] = static_cast<unsigned char>(length >> 16);
    frame[2] = static_cast<unsigned char>(length >> 8);
    frame[3] = static_cast<unsigned char>(length);
    std::copy(payload.begin(), payload.end(), frame.begin() + 4);
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
    ChildProcess::Options options;
    options.captureStdout = true;
    options.errorFile = m_directory.file("err");
    m_child = std::make_unique<ChildProcess>(executable(), arguments, options);
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    try {
        while (m_port == 0) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            const std::string line =
                m_child->readLine(static_cast<int>(std::max<long>(left.count(), 0)));
            m_output += line + "\n";
            if (line.find("listening on ") != std::string::npos) {
                m_port = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
            }
        }
    } catch (const std::runtime_error&) {
        const int status = stop();
        throw std::runtime_error("ostrelink-server did not start (status " +
                                 std::to_string(status) + "): " + standardError());
    }
}

ServerProcess::~ServerProcess() = default;

int ServerProcess::stop() {
    return m_child->stop();
}

void ServerProcess::terminate() const {
    ::kill(m_child->pid(), SIGTERM);
}

long ServerProcess::residentKiB() const {
    std::ifstream status("/proc/" + std::to_string(m_child->pid()) + "/status");
    std::string key;
    while (status >> key) {
        long value = 0;
        if (key == "VmRSS:" && status >> value) {
            return value;
        }
    }
    return -1;
}

std::string ServerProcess::standardError() const {
    return readFile(m_directory.file("err"));
}

std::string ServerProcess::standardOutput() {
    try {
        for (;;) {
            m_output += m_child->readLine(0) + "\n";
        }
    } catch (const std::runtime_error&) {
    }
    return m_output;
}

ServerProcess::Outcome ServerProcess::run(const std::vector<std::string>& arguments) {
    const TemporaryDirectory directory;
    const ChildRun run = runChild(executable(), arguments, {}, directory.path());
    return {run.status, run.out, run.err};
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
    auto factory = m_library.get<Ostrelink::Native::Interfaces::CreateTransportChannelFn>(
        "CreateTransportChannel");
    std::unique_ptr<ITransport> transport(factory(host, port));
    if (!transport) {
        throw std::runtime_error("CreateTransportChannel returned null");
    }
    transport->Initialize(8, 2, 0);
    return transport;
}

Bytes roundTrip(ITransport& transport, Bytes message) {
    const int length = transport.SendCommand(message.data(), static_cast<int>(message.size()));
    Bytes reply(static_cast<std::size_t>(length), 0);
    transport.ReadResponse(reply.data(), length);
    return reply;
}

int connectRaw(unsigned short port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    const timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    return fd;
}

unsigned short unusedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(fd);
    return ntohs(address.sin_port);
}
