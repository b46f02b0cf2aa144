#include "endpoints/JvmNativeTransmitter.h"

namespace Ostrelink::Runtimes::Jvm::Native::Transmitter {

JvmNativeTransmitter::JvmNativeTransmitter(
    Ostrelink::Native::Definitions::RuntimeOperationMode mode)
    : NativeTransmitter(mode) {}

}  // namespace Ostrelink::Runtimes::Jvm::Native::Transmitter
