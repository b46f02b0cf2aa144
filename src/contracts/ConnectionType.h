#pragma once

namespace Ostrelink::Native::Definitions {

// Header byte 2: how a transmitter reaches the target runtime.
enum class ConnectionType : unsigned char {
    InMemory = 0,
    Tcp = 1,
    Tls = 2,
};

}  // namespace Ostrelink::Native::Definitions
