// A broken Configs library for the facade's failure rules. Of the sixteen exports it has only
// two, which throw: SetConfigSource (a plain struct for "throw struct") and GetChannelHost.
// GetLoggingLevel, GetWorkingDirectory and the rest are missing.

#include <stdexcept>
#include <string>

#define VARIANT_EXPORT extern "C" __attribute__((visibility("default")))

struct PlainStruct {};

VARIANT_EXPORT int SetConfigSource(const char* source) {
    if (std::string(source) == "throw struct") {
        throw PlainStruct{};
    }
    throw std::runtime_error("Configs variant: source refused");
}

VARIANT_EXPORT std::string GetChannelHost(const char*, const char*) {
    throw std::runtime_error("Configs variant: no hosts here");
}
