#pragma once

#include "contracts/RuntimeOperationMode.h"
#include "endpoints/NativeTransmitter.h"

namespace Ostrelink::Runtimes::Jvm::Native::Transmitter {

// The transmitter of this library. Adds nothing to NativeTransmitter; the name is what the
// factories build.
class JvmNativeTransmitter : public Ostrelink::Native::Transmitter::NativeTransmitter {
public:
    explicit JvmNativeTransmitter(Ostrelink::Native::Definitions::RuntimeOperationMode mode);
};

}  // namespace Ostrelink::Runtimes::Jvm::Native::Transmitter
