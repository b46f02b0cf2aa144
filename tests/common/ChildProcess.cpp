#include "common/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

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

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// This process's environment with changes: "NAME=value" sets, "NAME" removes.
std::vector<std::string> childEnvironment(const std::vector<std::string>& changes) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        bool changed = false;
        for (const std::string& change : changes) {
            changed = changed || change.substr(0, change.find('=')) == name;
        }
        if (!changed) {
            environment.push_back(text);
        }
    }
    for (const std::string& change : changes) {
        if (change.find('=') != std::string::npos) {
            environment.push_back(change);
        }
    }
    return environment;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (std::string& text : strings) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const Options& options) {
    Pipe out;
    Pipe report;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!options.workingDirectory.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, options.workingDirectory.c_str());
    }
    if (options.captureStdout) {
        out = makePipe();
        posix_spawn_file_actions_adddup2(&actions, out.write, STDOUT_FILENO);
    } else {
        const std::string file = options.outputFile.empty() ? "/dev/null" : options.outputFile;
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, file.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    if (!options.errorFile.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, options.errorFile.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    if (options.reportChannel) {
        report = makePipe();
        posix_spawn_file_actions_adddup2(&actions, report.write, 3);
    }
    std::vector<std::string> environment = childEnvironment(options.environment);
    std::vector<std::string> argumentCopies{program};
    argumentCopies.insert(argumentCopies.end(), arguments.begin(), arguments.end());
    const int result = posix_spawn(&m_pid, program.c_str(), &actions, nullptr,
                                   pointers(argumentCopies).data(), pointers(environment).data());
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
    stop();
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

int ChildProcess::waitBounded(int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!m_waited && std::chrono::steady_clock::now() < deadline) {
        if (waitpid(m_pid, &m_status, WNOHANG) == m_pid) {
            m_waited = true;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    if (!m_waited) {
        kill(m_pid, SIGKILL);
    }
    return wait();
}

int ChildProcess::stop(int timeoutMs) {
    if (!m_waited) {
        kill(m_pid, SIGTERM);
    }
    return waitBounded(timeoutMs);
}

ChildRun runChild(const std::string& program, const std::vector<std::string>& arguments,
                  const std::map<std::string, std::optional<std::string>>& changes,
                  const std::string& workingDirectory) {
    ChildProcess::Options options;
    options.workingDirectory = workingDirectory;
    // Output goes to files, so that neither stream can fill a pipe while the other is read.
    options.outputFile = workingDirectory + "/child.out";
    options.errorFile = workingDirectory + "/child.err";
    for (const auto& [name, value] : changes) {
        options.environment.push_back(value ? name + "=" + *value : name);
    }
    ChildProcess child(program, arguments, options);
    const int status = child.wait();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
            readFile(options.outputFile), readFile(options.errorFile)};
}

int runForked(void (*body)()) {
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        body();
        std::_Exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}
