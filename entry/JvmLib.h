#pragma once

#include <jni.h>

#include <atomic>
#include <shared_mutex>
#include <string>

#include "contracts/IReceiver.h"
#include "contracts/ITransmitter.h"
#include "contracts/RuntimeOperationMode.h"
#include "support/Platform.h"

// Process-wide state of this library: one copy per loaded library, none per thread.
namespace Ostrelink::Runtimes::Jvm::Native::Entry {

// The side of a call this library stands on; -1 until the first creator with a real mode.
extern std::atomic<Ostrelink::Native::Definitions::RuntimeOperationMode> operationMode;
// Published with release ordering once the object is whole; never deleted by this library.
extern std::atomic<Ostrelink::Native::Interfaces::IReceiver*> receiver;
extern std::atomic<Ostrelink::Native::Interfaces::ITransmitter*> transmitter;

extern std::shared_mutex createReceiverMutex;
extern std::shared_mutex createTransmitterMutex;
extern std::shared_mutex setOperationModeForTransmitterMutex;

// Stores mode if none is set yet (only one writer can win) and returns the mode in force.
Ostrelink::Native::Definitions::RuntimeOperationMode settleOperationMode(
    Ostrelink::Native::Definitions::RuntimeOperationMode mode);

}  // namespace Ostrelink::Runtimes::Jvm::Native::Entry

// Exports under plain names.
extern "C" {
OSTRELINK_EXPORT Ostrelink::Native::Interfaces::IReceiver* CreateReceiver(
    Ostrelink::Native::Definitions::RuntimeOperationMode mode);
OSTRELINK_EXPORT Ostrelink::Native::Interfaces::IReceiver* GetReceiver();
OSTRELINK_EXPORT Ostrelink::Native::Interfaces::ITransmitter* CreateTransmitter(
    Ostrelink::Native::Definitions::RuntimeOperationMode mode);
OSTRELINK_EXPORT Ostrelink::Native::Interfaces::ITransmitter* GetTransmitter();
OSTRELINK_EXPORT JNIEnv* GetJNIEnv();
}

// Exports under the decorated names of free functions in the global namespace.
OSTRELINK_EXPORT int SetOperationModeForTransmitter();
OSTRELINK_EXPORT void AtStartUp();
OSTRELINK_EXPORT int SetConfigSource(std::string source);
OSTRELINK_EXPORT int SetWorkingDirectoryPath(std::string path);
