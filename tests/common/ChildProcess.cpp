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
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace {

void closeAll(std::initializer_list<int> fds) {
    for (const int fd : fds) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const Options& options) {
    int out[2] = {-1, -1};
    int report[2] = {-1, -1};
    if ((options.captureStdout && pipe2(out, O_CLOEXEC) != 0) ||
        (options.reportChannel && pipe2(report, O_CLOEXEC) != 0)) {
        throw std::runtime_error("pipe2 failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (options.captureStdout) {
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
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
        posix_spawn_file_actions_adddup2(&actions, report[1], 3);
    }
    // env(1) enters the directory and changes the environment, then execs the program. Without
    // either, the program starts directly, as the start-up benchmark needs.
    std::vector<std::string> words;
    if (!options.environment.empty() || !options.workingDirectory.empty()) {
        words = {"/usr/bin/env", "-C",
                 options.workingDirectory.empty() ? "." : options.workingDirectory};
        for (const std::string& change : options.environment) {
            if (change.find('=') == std::string::npos) {
                words.insert(words.begin() + 3, {"-u", change});  // options before settings
            } else {
                words.push_back(change);
            }
        }
    }
    words.push_back(program);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const int failure = posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    closeAll({out[1], report[1]});
    if (failure != 0) {
        closeAll({out[0], report[0]});
        throw std::runtime_error("cannot start " + program);
    }
    m_stdout = out[0];
    m_report = report[0];
}

ChildProcess::~ChildProcess() {
    stop();
    closeAll({m_stdout, m_report});
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
    return reap(-1);
}

int ChildProcess::stop(int timeoutMs) {
    if (!m_waited) {
        kill(m_pid, SIGTERM);
    }
    return reap(timeoutMs);
}

int ChildProcess::reap(int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!m_waited) {
        rusage usage{};
        if (wait4(m_pid, &m_status, timeoutMs < 0 ? 0 : WNOHANG, &usage) == m_pid) {
            m_waited = true;
            m_cpuSeconds =
                static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
        } else if (timeoutMs >= 0 && std::chrono::steady_clock::now() >= deadline) {
            kill(m_pid, SIGKILL);
            timeoutMs = -1;
        } else if (timeoutMs >= 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    return m_status;
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

int runForked(void (*body)(), int limitMs) {
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        body();
        std::_Exit(0);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    int status = 0;
    while (waitpid(pid, &status, limitMs < 0 ? 0 : WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            limitMs = -1;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    return status;
}
