#include <ostrelink/ITransport.h>

#include <string>
#include <utility>

#include "NetworkTransport.h"

// The caller owns the object and deletes it through ITransport's virtual destructor. Throws
// NetworkError (a std::runtime_error) when host is no IPv4 address or the environment's
// settings can't be used.
extern "C" __attribute__((visibility("default"))) Ostrelink::Native::Interfaces::ITransport*
CreateTransportChannel(std::string host, unsigned short port) {
    return new Ostrelink::Network::Client::NetworkTransport(std::move(host), port);
}
