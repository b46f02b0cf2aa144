// The Cpp runtime stand-in with a factory left out (0), giving nothing (1) or as it is (2),
// chosen by RECEIVER and TRANSMITTER. A factory that gives nothing still records its mode.
#include "CppRuntime.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
#define EXPORT extern "C" __attribute__((visibility("default")))

#if RECEIVER
EXPORT Ostrelink::Native::Interfaces::IReceiver* CreateReceiver(RuntimeOperationMode mode) {
    auto* receiver = OstrelinkCppRuntime::receiver(mode);
    return RECEIVER == 2 ? receiver : nullptr;
}
#endif
#if TRANSMITTER
EXPORT Ostrelink::Native::Interfaces::ITransmitter* CreateTransmitter(RuntimeOperationMode mode) {
    auto* transmitter = OstrelinkCppRuntime::transmitter(mode);
    return TRANSMITTER == 2 ? transmitter : nullptr;
}
#endif
