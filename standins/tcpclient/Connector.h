#pragma once

#include <memory>
#include <string>

#include "ByteChannel.h"
#include "ClientSettings.h"

namespace Ostrelink::Network::Client {

// Opens connections for one client library: TcpConnector.cpp builds the TCP library,
// TlsConnector.cpp the TLS one. Shared by all threads of a client object, so open() must be
// safe to call concurrently.
class Connector {
public:
    virtual ~Connector() = default;
    // "TCP" or "TLS", for failure texts.
    virtual const char* kind() const = 0;
    // A connected stream, ready for frames. Throws StreamError.
    virtual std::unique_ptr<ByteChannel> open(const std::string& host, unsigned short port) = 0;
};

// Made once per client object; throws NetworkError when the settings can't be used.
std::unique_ptr<Connector> makeConnector(const ClientSettings& settings);

}  // namespace Ostrelink::Network::Client
