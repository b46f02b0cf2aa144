// A broken Configs library for the facade's failure rules: it has no GetLoggingLevel, no
// GetWorkingDirectory and no SetWorkingDirectory, and its SetConfigSource throws.

#include <stdexcept>
#include <string>

extern "C" __attribute__((visibility("default"))) int SetConfigSource(const char*) {
    throw std::runtime_error("Configs variant: source refused");
}

extern "C" __attribute__((visibility("default"))) std::string GetConfigSource() {
    return "variant";
}
