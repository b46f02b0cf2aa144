#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <iostream>
#include <string>

#include "HostedRuntime.h"
#include "Server.h"
#include "ServerOptions.h"
#include "Socket.h"

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

    // A peer that vanishes must cost one connection, not the process.
    ::signal(SIGPIPE, SIG_IGN);
    // SIGINT and SIGTERM are taken through a descriptor by the accepting loop. They are blocked
    // before any thread exists so that every thread inherits the mask. A JVM started in this
    // process unblocks them in its own threads and then handles them itself, ending the process.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
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
        server.run(stopFd.fd());
    } catch (const std::exception& error) {
        return fail(error.what(), 1);
    }
    std::cout << "stopped" << std::endl;
    return 0;
}
