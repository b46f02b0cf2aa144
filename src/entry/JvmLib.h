#pragma once

#include <jni.h>

#include <atomic>
#include <exception>
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

// Throws the failure of code 035: something that is not a std::exception came out of a call.
// Should its report meet such a throwable too, a plain std::runtime_error of the same text goes.
[[noreturn]] void throwForeignThrowable();

// Runs body; a std::exception goes on unchanged, anything else (a sibling library may throw a
// plain struct) becomes code 035. Neither the JVM nor a host can do anything with a throwable
// of a type it doesn't know, and in a JNI native it would end the process.
template <typename Body>
auto withoutForeignThrowables(Body&& body) -> decltype(body()) {
    try {
        return body();
    } catch (const std::exception&) {
        throw;
    } catch (...) {
        throwForeignThrowable();
    }
}

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
