#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include <ostrelink/Runtime.h>

namespace Ostrelink::Network::Server {

// A command line that can't be used; the text says why.
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& text) : std::runtime_error(text) {}
};

struct ServerOptions {
    std::string runtimePath;  // empty: the JVM runtime library of this installation
    int runtimeCode = static_cast<int>(Native::Definitions::Runtime::Jvm);
    std::string listenAddress = "127.0.0.1";
    unsigned short port = 0;
    std::string tlsCert;
    std::string tlsKey;
    std::string tlsClientCa;
    int maxConnections = 64;
    std::uint32_t maxFrameBytes = 64u * 1024u * 1024u;
    int idleTimeoutMs = 120000;
    int drainTimeoutMs = 30000;
    bool help = false;

    bool tls() const { return !tlsCert.empty(); }
    bool mutualTls() const { return tls() && !tlsClientCa.empty(); }

    // Parses and checks the command line, the listening policy included. Throws UsageError.
    static ServerOptions parse(int argc, char** argv);
    static const char* usage();
};

}  // namespace Ostrelink::Network::Server
