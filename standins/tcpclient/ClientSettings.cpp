#include "ClientSettings.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "NetworkError.h"

namespace Ostrelink::Network::Client {

namespace {

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// A whole number from 1 to INT_MAX, or the fallback when the variable is unset or empty.
int positiveNumber(const char* name, int fallback) {
    const std::string text = variable(name);
    if (text.empty()) {
        return fallback;
    }
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || value < 1 || value > INT_MAX) {
        throw NetworkError(std::string("Ostrelink network client: ") + name +
                           " must be a whole number from 1 to " + std::to_string(INT_MAX) +
                           ", not \"" + text + "\"");
    }
    return static_cast<int>(value);
}

}  // namespace

ClientSettings ClientSettings::fromEnvironment() {
    ClientSettings settings;
    settings.connectTimeoutMs =
        positiveNumber("OSTRELINK_NET_CONNECT_TIMEOUT_MS", settings.connectTimeoutMs);
    settings.readTimeoutMs =
        positiveNumber("OSTRELINK_NET_READ_TIMEOUT_MS", settings.readTimeoutMs);
    settings.maxFrameBytes = static_cast<std::uint32_t>(
        positiveNumber("OSTRELINK_NET_MAX_FRAME_BYTES", static_cast<int>(settings.maxFrameBytes)));
    settings.poolIdleMs = positiveNumber("OSTRELINK_NET_POOL_IDLE_MS", settings.poolIdleMs);
    settings.caFile = variable("OSTRELINK_TLS_CA_FILE");
    settings.certFile = variable("OSTRELINK_TLS_CERT_FILE");
    settings.keyFile = variable("OSTRELINK_TLS_KEY_FILE");
    const std::string insecure = variable("OSTRELINK_TLS_INSECURE");
    if (!insecure.empty() && insecure != "0" && insecure != "1") {
        throw NetworkError(
            "Ostrelink network client: OSTRELINK_TLS_INSECURE must be 0 or 1, not \"" + insecure +
            "\"");
    }
    settings.insecure = insecure == "1";
    return settings;
}

}  // namespace Ostrelink::Network::Client
