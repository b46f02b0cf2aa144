#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

// A program started by posix_spawn and ended by its own pid only. Its standard output can be read
// through a pipe; a second pipe on descriptor 3 carries what the child reports to us.
class ChildProcess {
public:
    struct Options {
        bool captureStdout = false;  // a pipe for readLine; else outputFile
        std::string outputFile;      // standard output when not captured; /dev/null if empty
        std::string errorFile;       // standard error; inherited if empty
        bool reportChannel = false;  // a pipe on the child's descriptor 3
        std::vector<std::string>
            environment;               // NAME=value set, NAME alone removed, for the child only
        std::string workingDirectory;  // this process's if empty
    };

    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const Options& options);
    // Stops the child if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // The next line of standard output; throws std::runtime_error at its end or after timeoutMs.
    std::string readLine(int timeoutMs);
    // Everything the child writes on descriptor 3, until it closes it.
    std::string readReport();
    // Waits for the child to end and returns its exit status as waitpid gives it.
    int wait();
    // SIGTERM, then wait, with SIGKILL after timeoutMs; returns the status.
    int stop(int timeoutMs = 10000);
    // User and system time of the child and all its threads; meaningful after wait().
    double cpuSeconds() const { return m_cpuSeconds; }

private:
    // Reaps the child, with SIGKILL after timeoutMs unless it is negative.
    int reap(int timeoutMs);

    pid_t m_pid = -1;
    int m_stdout = -1;
    int m_report = -1;
    std::string m_pending;
    bool m_waited = false;
    int m_status = 0;
    double m_cpuSeconds = 0;
};

// One run of a program to its end, and what it printed and returned.
struct ChildRun {
    int status = -1;  // the exit code; 128 + the signal when a signal ended it
    std::string out;
    std::string err;
};

// Variables to set (a value) or to remove (no value) in this process's environment, for a child
// only.
using EnvironmentChanges = std::map<std::string, std::optional<std::string>>;

// Runs program in workingDirectory, its output in files there.
ChildRun runChild(const std::string& program, const std::vector<std::string>& arguments,
                  const std::map<std::string, std::optional<std::string>>& changes,
                  const std::string& workingDirectory);

// Runs body in a forked copy of this process (no exec) and returns its wait status. For what
// can happen only once in a process: body ends the child with std::exit. A child that still runs
// after limitMs (unless negative) is killed with SIGKILL: a hang shows as that signal.
int runForked(void (*body)(), int limitMs = -1);
