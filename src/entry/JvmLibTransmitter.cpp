#include <memory>
#include <mutex>

#include "endpoints/JvmNativeTransmitter.h"
#include "entry/JvmLib.h"

using namespace Ostrelink::Runtimes::Jvm::Native::Entry;
using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::ITransmitter;
using Ostrelink::Runtimes::Jvm::Native::Transmitter::JvmNativeTransmitter;

namespace {

// The common case after the first message: a mode is set and the transmitter exists. No lock.
ITransmitter* settledTransmitter() {
    ITransmitter* existing = transmitter.load(std::memory_order_acquire);
    if (operationMode.load(std::memory_order_acquire) != RuntimeOperationMode::NotSet &&
        existing != nullptr) {
        return existing;
    }
    return nullptr;
}

// Settles the mode and builds the one transmitter, under createTransmitterMutex. Both creators
// end here, so on a fresh process CreateTransmitter and SetOperationModeForTransmitter racing
// each other still give one mode (settleOperationMode lets one writer win) and one transmitter
// (built only under this mutex). SetOperationModeForTransmitter comes here holding its own mutex;
// CreateTransmitter never takes that one, so the two are always taken in the same order.
ITransmitter* buildTransmitter(RuntimeOperationMode mode) {
    std::unique_lock<std::shared_mutex> lock(createTransmitterMutex);
    if (ITransmitter* existing = settledTransmitter()) {
        return existing;
    }
    const RuntimeOperationMode effective = settleOperationMode(mode);
    ITransmitter* existing = transmitter.load(std::memory_order_acquire);
    if (existing == nullptr) {
        auto created = std::make_unique<JvmNativeTransmitter>(effective);
        existing = created.release();  // the process's transmitter lives until the process ends
        transmitter.store(existing, std::memory_order_release);
    }
    return existing;
}

}  // namespace

extern "C" ITransmitter* CreateTransmitter(RuntimeOperationMode mode) {
    if (ITransmitter* existing = settledTransmitter()) {
        return existing;
    }
    return buildTransmitter(mode);
}

extern "C" ITransmitter* GetTransmitter() {
    return transmitter.load(std::memory_order_acquire);
}

int SetOperationModeForTransmitter() {
    if (settledTransmitter() != nullptr) {
        return 0;
    }
    std::unique_lock<std::shared_mutex> lock(setOperationModeForTransmitterMutex);
    if (settledTransmitter() != nullptr) {
        return 0;
    }
    buildTransmitter(RuntimeOperationMode::Calling);
    return 0;
}
