#pragma once

namespace Ostrelink::Native::Definitions {

// Header byte 10. Only these values mean something to the native layer; every other value of a
// request goes to the managed side unchanged.
enum class CommandType : unsigned char {
    PlainCommand = 0,
    LoadLibraryCommand = 1,
    ExceptionReply = 10,
    HeartBeatCommand = 11,
};

}  // namespace Ostrelink::Native::Definitions
