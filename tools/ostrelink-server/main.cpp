#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <string>

#include "DefaultJdk.h"
#include "HostedRuntime.h"
#include "Server.h"
#include "ServerOptions.h"
#include "Socket.h"
#include "ToolVersion.h"

using Ostrelink::Network::Socket;
using Ostrelink::Network::Server::HostedRuntime;
using Ostrelink::Network::Server::Server;
using Ostrelink::Network::Server::ServerOptions;
using Ostrelink::Network::Server::UsageError;

namespace {

// <dir of this executable>/../<native dir>/libOstrelinkJvmRuntimeNative.so
std::string defaultRuntimePath() {
    char path[PATH_MAX] = {};
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) {
        throw std::runtime_error("cannot find this executable through /proc/self/exe: " +
                                 Ostrelink::Network::errnoText(errno));
    }
    const std::string self(path, static_cast<std::size_t>(length));
    return self.substr(0, self.rfind('/') + 1) + OSTRELINK_SERVER_DEFAULT_RUNTIME;
}

int fail(const std::string& text, int code) {
    std::cerr << "ostrelink-server: " << text << std::endl;
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    if (ToolVersion::printIfAsked("ostrelink-server", argc, argv)) {
        return 0;
    }
    ServerOptions options;
    try {
        options = ServerOptions::parse(argc, argv);
    } catch (const UsageError& error) {
        return fail(std::string(error.what()) + "\nTry ostrelink-server --help.", 2);
    }
    if (options.help) {
        std::cout << ServerOptions::usage();
        return 0;
    }

    DefaultJdk::useIfNoneSet("ostrelink-server");
    // A peer that vanishes must cost one connection, not the process.
    ::signal(SIGPIPE, SIG_IGN);
    // SIGINT and SIGTERM are read from a descriptor by the accepting loop, so they are blocked
    // before any thread exists, and every thread inherits the mask. They are also set to be
    // ignored: a JVM started later in this process then neither installs handlers of its own for
    // them nor unblocks them in its threads, either of which would race the descriptor for the
    // signal. A signal that is blocked is still queued, ignored or not.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    ::signal(SIGINT, SIG_IGN);
    ::signal(SIGTERM, SIG_IGN);
    Socket stopFd(::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!stopFd.valid()) {
        return fail("cannot watch for SIGINT and SIGTERM: " + Ostrelink::Network::errnoText(errno),
                    1);
    }

    try {
        const std::string runtimePath =
            options.runtimePath.empty() ? defaultRuntimePath() : options.runtimePath;
        const HostedRuntime runtime(runtimePath, options.runtimeCode);
        Server server(options, runtime);
        std::cout << "listening on " << server.endpoint() << std::endl;
        if (!server.run(stopFd.fd())) {
            // Commands still run inside the runtime on threads that can't be joined: unwinding
            // would pull the server and the runtime from under them.
            std::_Exit(1);
        }
    } catch (const std::exception& error) {
        return fail(error.what(), 1);
    }
    std::cout << "stopped" << std::endl;
    return 0;
}
