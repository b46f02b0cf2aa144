#pragma once

#include <ostrelink/IReceiver.h>
#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeOperationMode.h>

#include <stdexcept>

// The stand-in for the Cpp runtime's native library (runtime 8). It is built only against the
// installed contract headers, as a real sibling is. See README.md for what it answers.
namespace OstrelinkCppRuntime {

// What the receiver throws when a command asks it to fail: not an OstrelinkNativeException, so
// callers meet a foreign exception type across the library border.
class CppRuntimeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The library's singletons. The factories pass the mode on; the objects record it.
Ostrelink::Native::Interfaces::IReceiver* receiver(
    Ostrelink::Native::Definitions::RuntimeOperationMode mode);
Ostrelink::Native::Interfaces::ITransmitter* transmitter(
    Ostrelink::Native::Definitions::RuntimeOperationMode mode);

}  // namespace OstrelinkCppRuntime
