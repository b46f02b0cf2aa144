#include "endpoints/JvmNativeReceiver.h"

#include <memory>

#include "launcher/JvmLauncher.h"
#include "support/OstrelinkNativeException.h"

namespace Ostrelink::Runtimes::Jvm::Native::Receiver {

using Ostrelink::Native::Definitions::RuntimeOperationMode;

namespace {
RuntimeOperationMode refuseNotSet(RuntimeOperationMode mode) {
    if (mode == RuntimeOperationMode::NotSet) {
        throw OstrelinkNativeException(
            "Ostrelink Native Exception: Exception code 032. \nRuntime not initialized", "Unknown");
    }
    return mode;
}
}  // namespace

JvmNativeReceiver::JvmNativeReceiver(RuntimeOperationMode mode) : NativeReceiver(refuseNotSet(mode)) {
    m_launcher = std::make_unique<JvmLauncher>(mode);
}

}  // namespace Ostrelink::Runtimes::Jvm::Native::Receiver
