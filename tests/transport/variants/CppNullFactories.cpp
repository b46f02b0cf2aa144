// The Cpp runtime stand-in whose factories give nothing, though they still record their mode.
#include "CppRuntime.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;

extern "C" __attribute__((visibility("default"))) IReceiver* CreateReceiver(
    RuntimeOperationMode mode) {
    OstrelinkCppRuntime::receiver(mode);
    return nullptr;
}

extern "C" __attribute__((visibility("default"))) ITransmitter* CreateTransmitter(
    RuntimeOperationMode mode) {
    OstrelinkCppRuntime::transmitter(mode);
    return nullptr;
}
