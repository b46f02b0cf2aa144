// Test-only library: the configuration facade and the exception compiled on their own, because
// most of the facade's operations, and the exception's copy, have no caller that the runtime
// library exports. It lies in a copy of the staged
// tree, so the facade finds that copy's libConfigs.so beside it, as in the runtime library.

#include <string>

#include "support/ConfigHandler.h"
#include "support/OstrelinkNativeException.h"

using Ostrelink::Native::ConfigHandler::ConfigHandler;

#define PROBE_EXPORT extern "C" __attribute__((visibility("default")))

PROBE_EXPORT int ProbeGetChannelPort() {
    return ConfigHandler::GetChannelPort("python", "main");
}

PROBE_EXPORT std::string ProbeGetChannelHost() {
    return ConfigHandler::GetChannelHost("python", "main");
}

// Reports once, then copies: the copy carries the text and reports nothing.
PROBE_EXPORT std::string ProbeCopyOfException(const char* text) {
    const OstrelinkNativeException original(text, "Unknown");
    const OstrelinkNativeException copy(original);
    return copy.what();
}
