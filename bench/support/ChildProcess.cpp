#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace {

struct Pipe {
    int read = -1;
    int write = -1;
};

Pipe makePipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
    }
    return {fds[0], fds[1]};
}

void closeIfOpen(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const Options& options) {
    Pipe out;
    Pipe report;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (options.captureStdout) {
        out = makePipe();
        posix_spawn_file_actions_adddup2(&actions, out.write, STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    if (options.reportChannel) {
        report = makePipe();
        posix_spawn_file_actions_adddup2(&actions, report.write, 3);
    }
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);
    }
    environment.insert(environment.end(), options.environment.begin(), options.environment.end());
    std::vector<char*> envp;
    for (std::string& entry : environment) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> argumentCopies;
    argumentCopies.push_back(program);
    argumentCopies.insert(argumentCopies.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : argumentCopies) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    const int result =
        posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    closeIfOpen(out.write);
    closeIfOpen(report.write);
    if (result != 0) {
        closeIfOpen(out.read);
        closeIfOpen(report.read);
        throw std::runtime_error("cannot start " + program + ": " + std::strerror(result));
    }
    m_stdout = out.read;
    m_report = report.read;
}

ChildProcess::~ChildProcess() {
    if (!m_waited) {
        terminate();
    }
    closeIfOpen(m_stdout);
    closeIfOpen(m_report);
}

std::string ChildProcess::readLine(int timeoutMs) {
    for (;;) {
        const std::size_t end = m_pending.find('\n');
        if (end != std::string::npos) {
            std::string line = m_pending.substr(0, end);
            m_pending.erase(0, end + 1);
            return line;
        }
        pollfd entry{m_stdout, POLLIN, 0};
        if (poll(&entry, 1, timeoutMs) <= 0) {
            throw std::runtime_error("no line from the child within " + std::to_string(timeoutMs) +
                                     " ms");
        }
        char buffer[512];
        const ssize_t got = read(m_stdout, buffer, sizeof(buffer));
        if (got <= 0) {
            throw std::runtime_error("the child's output ended");
        }
        m_pending.append(buffer, static_cast<std::size_t>(got));
    }
}

std::string ChildProcess::readReport() {
    std::string text;
    char buffer[256];
    for (;;) {
        const ssize_t got = read(m_report, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return text;
        }
        text.append(buffer, static_cast<std::size_t>(got));
    }
}

int ChildProcess::wait() {
    if (!m_waited) {
        rusage usage{};
        while (wait4(m_pid, &m_status, 0, &usage) < 0 && errno == EINTR) {
        }
        m_waited = true;
        const auto seconds = [](const timeval& value) {
            return static_cast<double>(value.tv_sec) + static_cast<double>(value.tv_usec) * 1e-6;
        };
        m_cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    }
    return m_status;
}

void ChildProcess::terminate() {
    if (!m_waited) {
        kill(m_pid, SIGTERM);
        wait();
    }
}
