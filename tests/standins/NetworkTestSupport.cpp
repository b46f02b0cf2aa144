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

// The command line of the server, built before fork: the child only redirects and execs, since
// allocating after fork in a process with threads can deadlock.
class CommandLine {
public:
    explicit CommandLine(const std::vector<std::string>& arguments) : m_strings(arguments) {
        m_strings.insert(m_strings.begin(), ServerProcess::executable());
        for (std::string& text : m_strings) {
            m_argv.push_back(text.data());
        }
        m_argv.push_back(nullptr);
    }
    // Exits 127 if exec fails, so the parent sees a clear status.
    [[noreturn]] void exec() {
        ::execv(m_argv[0], m_argv.data());
        ::_exit(127);
    }

private:
    std::vector<std::string> m_strings;
    std::vector<char*> m_argv;
};

int waitBounded(pid_t pid, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    int status = 0;
    while (Clock::now() < deadline) {
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            return status;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    return status;
}

std::string temporaryFile() {
    char name[] = "/tmp/ostrelink-server-output-XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd < 0) {
        throw std::runtime_error("mkstemp failed");
    }
    ::close(fd);
    return name;
}

}  // namespace

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

ServerProcess::ServerProcess(const std::vector<std::string>& arguments)
    : m_errorFile(temporaryFile()) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    CommandLine commandLine(arguments);
    m_pid = ::fork();
    if (m_pid == 0) {
        ::dup2(pipeFds[1], STDOUT_FILENO);
        const int errorFd = ::open(m_errorFile.c_str(), O_WRONLY | O_TRUNC);
        ::dup2(errorFd, STDERR_FILENO);
        commandLine.exec();
    }
    ::close(pipeFds[1]);
    m_stdout = pipeFds[0];
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (Clock::now() < deadline) {
        const auto marker = m_output.find("listening on ");
        const auto end = marker == std::string::npos ? marker : m_output.find('\n', marker);
        if (end != std::string::npos) {
            const std::string line = m_output.substr(marker, end - marker);
            m_port = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
            return;
        }
        pollfd entry{m_stdout, POLLIN, 0};
        if (::poll(&entry, 1, 100) <= 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t got = ::read(m_stdout, buffer, sizeof(buffer));
        if (got <= 0) {
            break;
        }
        m_output.append(buffer, static_cast<std::size_t>(got));
    }
    const int status = stop();
    throw std::runtime_error("ostrelink-server did not start (status " + std::to_string(status) +
                             "): " + standardError());
}

ServerProcess::~ServerProcess() {
    stop();
    if (m_stdout >= 0) {
        ::close(m_stdout);
    }
    ::unlink(m_errorFile.c_str());
}

int ServerProcess::stop() {
    if (m_pid <= 0) {
        return -1;
    }
    ::kill(m_pid, SIGTERM);
    const int status = waitBounded(m_pid, std::chrono::seconds(10));
    m_pid = -1;
    return status;
}

void ServerProcess::terminate() const {
    ::kill(m_pid, SIGTERM);
}

long ServerProcess::residentKiB() const {
    std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
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
    return readFile(m_errorFile);
}

std::string ServerProcess::standardOutput() {
    char buffer[4096];
    pollfd entry{m_stdout, POLLIN, 0};
    while (::poll(&entry, 1, 0) > 0) {
        const ssize_t got = ::read(m_stdout, buffer, sizeof(buffer));
        if (got <= 0) {
            break;
        }
        m_output.append(buffer, static_cast<std::size_t>(got));
    }
    return m_output;
}

ServerProcess::Outcome ServerProcess::run(const std::vector<std::string>& arguments) {
    const std::string outputFile = temporaryFile();
    const std::string errorFile = temporaryFile();
    CommandLine commandLine(arguments);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int outputFd = ::open(outputFile.c_str(), O_WRONLY | O_TRUNC);
        const int errorFd = ::open(errorFile.c_str(), O_WRONLY | O_TRUNC);
        ::dup2(outputFd, STDOUT_FILENO);
        ::dup2(errorFd, STDERR_FILENO);
        commandLine.exec();
    }
    const int status = waitBounded(pid, std::chrono::seconds(20));
    Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(outputFile),
                    readFile(errorFile)};
    ::unlink(outputFile.c_str());
    ::unlink(errorFile.c_str());
    return outcome;
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
