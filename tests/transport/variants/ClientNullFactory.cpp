// A client library whose factory never makes a channel, and counts how often it was asked.
#include <ostrelink/ITransport.h>

#define EXPORT extern "C" __attribute__((visibility("default")))

static int factoryCalls = 0;

EXPORT Ostrelink::Native::Interfaces::ITransport* CreateTransportChannel(std::string,
                                                                         unsigned short) {
    ++factoryCalls;
    return nullptr;
}

EXPORT int ClientFactoryCalls() {
    return factoryCalls;
}
