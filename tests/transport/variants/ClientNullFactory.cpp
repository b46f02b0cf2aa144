// A client library whose factory never makes a channel, and counts how often it was asked.
#include <ostrelink/ITransport.h>

#include <atomic>
#include <string>

namespace {
std::atomic<int> factoryCalls{0};
}

extern "C" __attribute__((visibility("default"))) Ostrelink::Native::Interfaces::ITransport*
CreateTransportChannel(std::string, unsigned short) {
    ++factoryCalls;
    return nullptr;
}

extern "C" __attribute__((visibility("default"))) int ClientFactoryCalls() {
    return factoryCalls.load();
}
