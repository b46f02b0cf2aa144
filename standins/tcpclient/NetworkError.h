#pragma once

#include <stdexcept>
#include <string>

namespace Ostrelink::Network::Client {

// Every failure of a client object. Callers in other libraries catch it as std::runtime_error.
class NetworkError : public std::runtime_error {
public:
    explicit NetworkError(const std::string& text) : std::runtime_error(text) {}
};

}  // namespace Ostrelink::Network::Client
