#pragma once

namespace Ostrelink::Native::Definitions {

// A runtime's code; one byte on the wire (header bytes 0 and 9).
enum class Runtime : unsigned char {
    Clr = 0,
    Go = 1,
    Jvm = 2,
    Netcore = 3,
    Perl = 4,
    Python = 5,
    Ruby = 6,
    Nodejs = 7,
    Cpp = 8,
    Php = 9,
    Python2 = 10,
};

inline constexpr int highestRuntimeCode = 10;

}  // namespace Ostrelink::Native::Definitions
