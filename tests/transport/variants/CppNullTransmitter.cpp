// The Cpp runtime stand-in whose CreateTransmitter gives nothing; its receiver is the real one.
#include "CppRuntime.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;

extern "C" __attribute__((visibility("default"))) IReceiver* CreateReceiver(
    RuntimeOperationMode mode) {
    return OstrelinkCppRuntime::receiver(mode);
}

extern "C" __attribute__((visibility("default"))) ITransmitter* CreateTransmitter(
    RuntimeOperationMode mode) {
    OstrelinkCppRuntime::transmitter(mode);
    return nullptr;
}
