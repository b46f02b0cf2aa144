// ostrelink-host: runs commands in a JVM through the installed runtime library. See --help.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include "DefaultJdk.h"
#include "Doctor.h"
#include "HostCommandLine.h"
#include "HostSession.h"
#include "RuntimeLibrary.h"
#include "ToolVersion.h"

namespace {

// Writes straight to a descriptor that it owns: the results, one line each, as they come.
class DescriptorBuffer : public std::streambuf {
public:
    explicit DescriptorBuffer(int fd) : m_fd(fd) {}
    ~DescriptorBuffer() override { ::close(m_fd); }
    DescriptorBuffer(const DescriptorBuffer&) = delete;
    DescriptorBuffer& operator=(const DescriptorBuffer&) = delete;

protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) {
            return traits_type::not_eof(c);
        }
        const char byte = traits_type::to_char_type(c);
        return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
    }

    std::streamsize xsputn(const char* data, std::streamsize size) override {
        std::streamsize done = 0;
        while (done < size) {
            const ssize_t written = ::write(m_fd, data + done, static_cast<size_t>(size - done));
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written <= 0) {
                break;
            }
            done += written;
        }
        return done;
    }

private:
    int m_fd;
};

// The library prints its runtime info and search progress to descriptor 1, and so does Java's
// System.out; a script that reads the results must get the results alone. So the results keep a
// private copy of standard output, and descriptor 1 points at standard error from here on. Runs
// before the library is loaded; returns the private descriptor, or -1 with errno.
int keepStandardOutputForResults() {
    const int results = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (results < 0) {
        return -1;
    }
    if (::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        const int error = errno;
        ::close(results);
        errno = error;
        return -1;
    }
    // Line by line, so that the library's lines and the tool's own on standard error keep
    // their order.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    return results;
}

}  // namespace

int main(int argc, char** argv) {
    if (ToolVersion::printIfAsked("ostrelink-host", argc, argv)) {
        return 0;
    }
    HostCommandLine line;
    try {
        line = HostCommandLine::parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError& error) {
        std::cerr << "ostrelink-host: " << error.what() << "\nTry 'ostrelink-host --help'."
                  << std::endl;
        return 2;
    }
    if (line.help()) {
        std::cout << HostCommandLine::helpText();
        return 0;
    }
    const bool javaHomeFromPath = DefaultJdk::useIfNoneSet("ostrelink-host");
    if (line.doctor()) {
        // The doctor reads what the library found from the runtime info that it prints.
        setenv("OSTRELINK_LOGGING_LEVEL", "runtimeinfo", 1);
    }
    const int resultsFd = keepStandardOutputForResults();
    if (resultsFd < 0) {
        std::cerr << "ostrelink-host: cannot keep standard output for the results: "
                  << std::strerror(errno) << std::endl;
        return 1;
    }
    DescriptorBuffer resultsBuffer(resultsFd);
    std::ostream results(&resultsBuffer);
    try {
        const std::string libraryPath =
            line.libraryPath().empty() ? RuntimeLibrary::installedPath() : line.libraryPath();
        if (line.doctor()) {
            return Doctor(results, javaHomeFromPath).run(libraryPath);
        }
        const RuntimeLibrary library(libraryPath);
        auto* receiver = library.createReceiver();
        HostSession::initialize(receiver);
        HostSession session(receiver);
        for (const HostStep& step : line.steps()) {
            session.run(step, results);
        }
    } catch (const std::exception& error) {
        std::cout.flush();
        std::cerr << "ostrelink-host: " << error.what() << std::endl;
        return 1;
    }
    return 0;
}
