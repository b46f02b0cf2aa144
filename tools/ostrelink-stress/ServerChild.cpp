#include "ServerChild.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

namespace Ostrelink::Tools::Stress {

namespace {

constexpr int startTimeoutMs = 30000;

// Reads the child's standard output up to the line that names its endpoint.
std::string readListeningLine(int fd) {
    std::string text;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(startTimeoutMs);
    for (;;) {
        const auto newline = text.find('\n');
        if (newline != std::string::npos) {
            return text.substr(0, newline);
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd entry{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) == 0) {
            throw std::runtime_error("ostrelink-server printed no endpoint within 30 s");
        }
        char buffer[256];
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            throw std::runtime_error("ostrelink-server ended before it listened: " + text);
        }
        text.append(buffer, static_cast<std::size_t>(got));
    }
}

}  // namespace

ServerChild::ServerChild(const std::string& executable) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) {
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    }
    m_pid = ::fork();
    if (m_pid < 0) {
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    if (m_pid == 0) {
        ::dup2(pipeFds[1], STDOUT_FILENO);
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        ::execl(executable.c_str(), executable.c_str(), "--listen", "127.0.0.1", "--port", "0",
                "--max-connections", "512", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    std::string line;
    try {
        line = readListeningLine(pipeFds[0]);
    } catch (...) {
        ::close(pipeFds[0]);
        stop();
        throw;
    }
    // The child's later output goes nowhere; it must not block on a full pipe.
    ::close(pipeFds[0]);
    const auto colon = line.rfind(':');
    if (line.rfind("listening on ", 0) != 0 || colon == std::string::npos) {
        stop();
        throw std::runtime_error("unexpected first line from ostrelink-server: " + line);
    }
    m_port = static_cast<unsigned short>(std::stoi(line.substr(colon + 1)));
}

ServerChild::~ServerChild() {
    stop();
}

int ServerChild::stop() {
    if (m_pid <= 0) {
        return 0;
    }
    ::kill(m_pid, SIGTERM);
    int status = 0;
    for (int waited = 0; waited < 100; ++waited) {
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            return status;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
    return status;
}

}  // namespace Ostrelink::Tools::Stress
