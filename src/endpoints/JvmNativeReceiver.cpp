#include "endpoints/JvmNativeReceiver.h"

#include <memory>

#include "launcher/JvmLauncher.h"
#include "support/Failures.h"

namespace Ostrelink::Runtimes::Jvm::Native::Receiver {

using Ostrelink::Native::Definitions::RuntimeOperationMode;

namespace {
RuntimeOperationMode refuseNotSet(RuntimeOperationMode mode) {
    if (mode == RuntimeOperationMode::NotSet) {
        Ostrelink::Native::Failures::raise(
            Ostrelink::Native::Failures::Failure::ReceiverModeNotSet);
    }
    return mode;
}
}  // namespace

JvmNativeReceiver::JvmNativeReceiver(RuntimeOperationMode mode)
    : NativeReceiver(refuseNotSet(mode)) {
    m_launcher = std::make_unique<JvmLauncher>(mode);
}

}  // namespace Ostrelink::Runtimes::Jvm::Native::Receiver
