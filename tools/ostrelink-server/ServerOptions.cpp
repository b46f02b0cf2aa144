#include "ServerOptions.h"

#include <cerrno>
#include <cstdlib>

#include "Socket.h"

namespace Ostrelink::Network::Server {

namespace {

long long number(const std::string& option, const std::string& text, long long low,
                 long long high) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || value < low || value > high) {
        throw UsageError(option + " takes a whole number from " + std::to_string(low) + " to " +
                         std::to_string(high) + ", not \"" + text + "\"");
    }
    return value;
}

}  // namespace

const char* ServerOptions::usage() {
    return R"(Usage: ostrelink-server [options]

Hosts a runtime library of this installation and serves its receiver to network clients:
each request frame is passed to the receiver's SendCommand, and the reply goes back as one frame
(4-byte big-endian length, then the bytes). A client that can send commands can run code in
this process, so only loopback addresses are served unless mutual TLS is configured.

Options:
  --runtime PATH          Runtime library to host, opened by this full path. Default: the JVM
                          runtime library of this installation,
                          <bin>/../Binaries/Native/<os>/<arch>/libOstrelinkJvmRuntimeNative.so
  --runtime-code N        Runtime code of that library, passed to its receiver's Initialize as
                          the called runtime (0-255). Default: 2
  --listen ADDR           IPv4 address to listen on. Default: 127.0.0.1. Any address outside
                          127.0.0.0/8 is refused unless --tls-cert, --tls-key and
                          --tls-client-ca are all given.
  --port N                TCP port (0-65535); 0 picks a free one. Default: 0. The server prints
                          "listening on ADDR:PORT" on standard output once it accepts.
  --tls-cert FILE         Serve TLS with this PEM certificate chain (needs --tls-key).
  --tls-key FILE          PEM private key of --tls-cert.
  --tls-client-ca FILE    Require every client to present a certificate issued by a CA in this
                          PEM file (mutual TLS).
  --max-connections N     Connections served at once (1-100000). Past it, a new client waits
                          in the listen queue, and the connection idle between frames the
                          longest is closed to admit it; with none idle, it waits until one
                          is, or until a connection ends. Default: 64
  --max-frame-bytes N     Largest frame accepted or sent (1-2147483647). A larger request closes
                          that connection. Default: 67108864 (64 MiB)
  --idle-timeout-ms N     How long a connection may stay silent between frames, and how long a
                          whole TLS handshake, the whole rest of a frame after its first byte,
                          or a whole reply may take, before it is closed (1-2147483647).
                          Default: 120000
  --drain-timeout-ms N    On SIGINT or SIGTERM, how long the commands in progress may take to
                          finish and send their replies (0-2147483647). Default: 30000
  --help                  Show this text.
  -V, --version           Print the version (first argument only).

SIGINT or SIGTERM stops the server: it closes the listening socket at once (new clients are
refused), closes idle connections, lets every command in progress finish and send its reply,
then exits 0. If the drain time runs out first, it names the connections it dropped on standard
error and exits 1.
)";
}

ServerOptions ServerOptions::parse(int argc, char** argv) {
    ServerOptions options;
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        std::string value;
        bool inlineValue = false;
        const auto equals = option.find('=');
        if (option.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option = option.substr(0, equals);
            inlineValue = true;
        }
        if (option == "--help" || option == "-h") {
            options.help = true;
            continue;
        }
        auto next = [&]() -> std::string {
            if (inlineValue) {
                return value;
            }
            if (i + 1 >= argc) {
                throw UsageError(option + " needs a value");
            }
            return argv[++i];
        };
        if (option == "--runtime") {
            options.runtimePath = next();
        } else if (option == "--runtime-code") {
            options.runtimeCode = static_cast<int>(number(option, next(), 0, 255));
        } else if (option == "--listen") {
            options.listenAddress = next();
        } else if (option == "--port") {
            options.port = static_cast<unsigned short>(number(option, next(), 0, 65535));
        } else if (option == "--tls-cert") {
            options.tlsCert = next();
        } else if (option == "--tls-key") {
            options.tlsKey = next();
        } else if (option == "--tls-client-ca") {
            options.tlsClientCa = next();
        } else if (option == "--max-connections") {
            options.maxConnections = static_cast<int>(number(option, next(), 1, 100000));
        } else if (option == "--max-frame-bytes") {
            options.maxFrameBytes =
                static_cast<std::uint32_t>(number(option, next(), 1, 2147483647));
        } else if (option == "--idle-timeout-ms") {
            options.idleTimeoutMs = static_cast<int>(number(option, next(), 1, 2147483647));
        } else if (option == "--drain-timeout-ms") {
            options.drainTimeoutMs = static_cast<int>(number(option, next(), 0, 2147483647));
        } else {
            throw UsageError("unknown option \"" + option + "\"");
        }
    }
    if (options.help) {
        return options;
    }
    unsigned char address[4];
    if (!parseIpv4(options.listenAddress, address)) {
        throw UsageError("--listen takes an IPv4 address, not \"" + options.listenAddress + "\"");
    }
    if (options.tlsCert.empty() != options.tlsKey.empty()) {
        throw UsageError("--tls-cert and --tls-key go together");
    }
    if (!options.tlsClientCa.empty() && !options.tls()) {
        throw UsageError("--tls-client-ca needs --tls-cert and --tls-key");
    }
    if (address[0] != 127 && !options.mutualTls()) {
        throw UsageError("refusing to listen on " + options.listenAddress +
                         ": a peer that can send commands can run code in this process, so an "
                         "address outside 127.0.0.0/8 needs mutual TLS (--tls-cert, --tls-key "
                         "and --tls-client-ca)");
    }
    return options;
}

}  // namespace Ostrelink::Network::Server
