#pragma once

#include "contracts/RuntimeOperationMode.h"
#include "endpoints/NativeReceiver.h"

namespace Ostrelink::Runtimes::Jvm::Native::Receiver {

// The receiver of this library: a NativeReceiver that owns a JvmLauncher.
class JvmNativeReceiver : public Ostrelink::Native::Receiver::NativeReceiver {
public:
    // Throws exception code 032 for RuntimeOperationMode::NotSet, before any launcher exists.
    explicit JvmNativeReceiver(Ostrelink::Native::Definitions::RuntimeOperationMode mode);
};

}  // namespace Ostrelink::Runtimes::Jvm::Native::Receiver
