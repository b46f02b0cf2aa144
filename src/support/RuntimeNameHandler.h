#pragma once

#include <string>

namespace Ostrelink::Native::RuntimeNameHandler {

// Turns a runtime code into its display name and the file name of its native library.
class RuntimeNameHandler {
public:
    RuntimeNameHandler() = delete;

    // "Unknown" for any code outside 0 to 10; negative codes count as large unsigned ones.
    static std::string GetRuntimeName(int code);
    // File name only, without a directory; "Unknown" outside 0 to 10.
    static std::string getRuntimeLibraryName(int code);
};

}  // namespace Ostrelink::Native::RuntimeNameHandler
