// The Cpp runtime stand-in without "CreateTransmitter".
#include "CppRuntime.h"

extern "C" __attribute__((visibility("default"))) Ostrelink::Native::Interfaces::IReceiver*
CreateReceiver(Ostrelink::Native::Definitions::RuntimeOperationMode mode) {
    return OstrelinkCppRuntime::receiver(mode);
}
