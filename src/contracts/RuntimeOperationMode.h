#pragma once

#include <cstdint>

namespace Ostrelink::Native::Definitions {

// The side of a call this library stands on. Decided once per process by the first creator.
enum class RuntimeOperationMode : std::int32_t {
    NotSet = -1,
    Calling = 0,
    Called = 1,
};

}  // namespace Ostrelink::Native::Definitions
