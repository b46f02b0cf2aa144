// The Cpp runtime stand-in without "CreateReceiver".
#include "CppRuntime.h"

extern "C" __attribute__((visibility("default"))) Ostrelink::Native::Interfaces::ITransmitter*
CreateTransmitter(Ostrelink::Native::Definitions::RuntimeOperationMode mode) {
    return OstrelinkCppRuntime::transmitter(mode);
}
