#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// A program started by posix_spawn, ended by its own pid only. Its standard output can be read
// through a pipe, and a second pipe on descriptor 3 carries what the child reports to us.
class ChildProcess {
public:
    struct Options {
        bool captureStdout = false;            // else /dev/null
        bool reportChannel = false;            // a pipe on the child's descriptor 3
        std::vector<std::string> environment;  // NAME=value set for the child only
    };

    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const Options& options);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of standard output; throws std::runtime_error at its end or after timeoutMs.
    std::string readLine(int timeoutMs);
    // Everything the child writes on descriptor 3, until it closes it.
    std::string readReport();
    // Waits for the child to end and returns its exit status as waitpid gives it.
    int wait();
    // User and system time of the child and all its threads; meaningful after wait().
    double cpuSeconds() const { return m_cpuSeconds; }
    // SIGTERM to this child, then wait.
    void terminate();

private:
    pid_t m_pid = -1;
    int m_stdout = -1;
    int m_report = -1;
    std::string m_pending;
    bool m_waited = false;
    int m_status = 0;
    double m_cpuSeconds = 0;
};
