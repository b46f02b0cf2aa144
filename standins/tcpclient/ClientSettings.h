#pragma once

#include <cstdint>
#include <string>

namespace Ostrelink::Network::Client {

// Settings of one client object, read from the environment when the object is made (README.md).
struct ClientSettings {
    int connectTimeoutMs = 5000;
    int readTimeoutMs = 30000;
    std::uint32_t maxFrameBytes = 64u * 1024u * 1024u;
    int poolIdleMs = 5000;
    std::string caFile;
    std::string certFile;
    std::string keyFile;
    bool insecure = false;

    // Throws NetworkError naming the variable whose value is unusable.
    static ClientSettings fromEnvironment();
};

}  // namespace Ostrelink::Network::Client
