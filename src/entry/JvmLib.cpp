#include "entry/JvmLib.h"

#include <memory>
#include <mutex>
#include <stdexcept>

#include "endpoints/JvmNativeReceiver.h"
#include "support/Failures.h"
#include "support/OstrelinkNativeException.h"

namespace Ostrelink::Runtimes::Jvm::Native::Entry {

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;

std::atomic<RuntimeOperationMode> operationMode{RuntimeOperationMode::NotSet};
std::atomic<IReceiver*> receiver{nullptr};
std::atomic<ITransmitter*> transmitter{nullptr};

std::shared_mutex createReceiverMutex;
std::shared_mutex createTransmitterMutex;
std::shared_mutex setOperationModeForTransmitterMutex;

RuntimeOperationMode settleOperationMode(RuntimeOperationMode mode) {
    RuntimeOperationMode current = operationMode.load(std::memory_order_acquire);
    if (current == RuntimeOperationMode::NotSet && mode != RuntimeOperationMode::NotSet &&
        operationMode.compare_exchange_strong(current, mode, std::memory_order_acq_rel)) {
        return mode;
    }
    // Lost the race, or nothing to store: what is in force now wins. With nothing set yet and
    // nothing to store, the caller's own value (-1) is the answer.
    return current == RuntimeOperationMode::NotSet ? mode : current;
}

void throwForeignThrowable() {
    const std::string text =
        Ostrelink::Native::Failures::text(Ostrelink::Native::Failures::Failure::ForeignThrowable);
    try {
        throw OstrelinkNativeException(text, "Unknown");
    } catch (const std::exception&) {
        throw;
    } catch (...) {
        throw std::runtime_error(text);
    }
}

}  // namespace Ostrelink::Runtimes::Jvm::Native::Entry

using namespace Ostrelink::Runtimes::Jvm::Native::Entry;
using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Runtimes::Jvm::Native::Receiver::JvmNativeReceiver;

extern "C" IReceiver* CreateReceiver(RuntimeOperationMode mode) {
    IReceiver* published = receiver.load(std::memory_order_acquire);
    if (operationMode.load(std::memory_order_acquire) != RuntimeOperationMode::NotSet &&
        published != nullptr) {
        return published;
    }
    // The constructor reports through the configuration and telemetry libraries.
    return withoutForeignThrowables([mode]() -> IReceiver* {
        std::unique_lock<std::shared_mutex> lock(createReceiverMutex);
        IReceiver* existing = receiver.load(std::memory_order_acquire);
        if (operationMode.load(std::memory_order_acquire) != RuntimeOperationMode::NotSet &&
            existing != nullptr) {
            return existing;
        }
        const RuntimeOperationMode effective = settleOperationMode(mode);
        if (existing == nullptr) {
            auto created = std::make_unique<JvmNativeReceiver>(effective);
            existing = created.release();  // the process's receiver lives until the process ends
            receiver.store(existing, std::memory_order_release);
        }
        return existing;
    });
}

extern "C" IReceiver* GetReceiver() {
    return receiver.load(std::memory_order_acquire);
}
