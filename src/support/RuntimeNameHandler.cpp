#include "support/RuntimeNameHandler.h"

#include <array>

#include "contracts/Runtime.h"
#include "support/Platform.h"

namespace Ostrelink::Native::RuntimeNameHandler {

namespace {

// Indexed by Definitions::Runtime.
constexpr std::array<const char*, Definitions::highestRuntimeCode + 1> runtimeNames = {
    "Clr", "Go", "Jvm", "Netcore", "Perl", "Python", "Ruby", "Nodejs", "Cpp", "Php", "Python2"};

constexpr const char* unknownName = "Unknown";

bool isKnown(int code) {
    return static_cast<unsigned int>(code) < runtimeNames.size();
}

}  // namespace

std::string RuntimeNameHandler::GetRuntimeName(int code) {
    return isKnown(code) ? runtimeNames[static_cast<unsigned int>(code)] : unknownName;
}

std::string RuntimeNameHandler::getRuntimeLibraryName(int code) {
    if (!isKnown(code)) {
        return unknownName;
    }
    return std::string(OSTRELINK_LIBRARY_PREFIX "Ostrelink") +
           runtimeNames[static_cast<unsigned int>(code)] + "RuntimeNative" OSTRELINK_LIBRARY_SUFFIX;
}

}  // namespace Ostrelink::Native::RuntimeNameHandler
