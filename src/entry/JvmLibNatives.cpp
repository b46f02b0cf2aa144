// The exported settings and the Java natives of com.ostrelink.core.transmitter.TransmitterWrapper.
// Every native but getNativeError turns a failure into its own failure code and leaves the text
// for getNativeError; no C++ throwable of any type reaches the JVM, which would end the process.

#include <jni.h>

#include <atomic>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "contracts/CommandHeader.h"
#include "entry/JvmLib.h"
#include "launcher/jni/ByteArrayElements.h"
#include "launcher/jni/UtfChars.h"
#include "support/ConfigHandler.h"
#include "support/OstrelinkNativeException.h"

using Ostrelink::Native::ConfigHandler::ConfigHandler;
using Ostrelink::Native::Definitions::CommandHeader;
using Ostrelink::Native::Interfaces::ITransmitter;
using Ostrelink::Native::Jni::ByteArrayElements;
using Ostrelink::Native::Jni::UtfChars;

namespace Ostrelink::Runtimes::Jvm::Native::Entry {

// Cleared after the first pass through AtStartUp. Two threads may both run that pass, which is
// harmless: SetOperationModeForTransmitter is idempotent.
std::atomic<bool> firstCall{true};
// Out-flag handed to the JVM and never read. The JVM writes it from any thread; nothing in this
// library may start reading it.
jboolean isCopy = JNI_TRUE;
// Nothing here records an environment: a JNIEnv* belongs to one thread, and threads that call
// into Java get theirs from ThreadJniEnv. GetJNIEnv therefore answers null.
JNIEnv* javaEnv = nullptr;

namespace {

// The text of the last failure of a native, one for the process. A std::string written by two
// failing threads at once would tear, so every write and read takes this lock. The text Java
// reads may still belong to another thread's failure.
std::mutex errorMessageMutex;
std::string errorMessage = "Undefined error";

void setErrorMessage(const char* text) {
    const std::lock_guard<std::mutex> lock(errorMessageMutex);
    errorMessage = text;
}

std::string readErrorMessage() {
    const std::lock_guard<std::mutex> lock(errorMessageMutex);
    return errorMessage;
}

constexpr jint sendCommandFailed = -2;
constexpr jint readResponseFailed = -3;
constexpr jint setEmbeddedRuntimeFailed = 252;  // -4 as an unsigned byte
constexpr jint deployRuntimeFailed = 251;       // -5 as an unsigned byte
constexpr jint setConfigSourceFailed = -6;
constexpr jint setWorkingDirectoryFailed = -7;

[[noreturn]] void refuse(const std::string& text) {
    throw OstrelinkNativeException(text, "Unknown");
}

std::string copyOf(JNIEnv* env, jstring string, jboolean* copyFlag, const char* native,
                   const char* argument) {
    if (string == nullptr) {
        refuse(std::string(native) + ": the " + argument + " string is null");
    }
    const UtfChars chars(env, string, copyFlag);
    if (chars.get() == nullptr) {
        refuse(std::string(native) + ": failed to get UTF chars of " + argument);
    }
    return chars.get();
}

// After AtStartUp a transmitter exists; only readResponse, which doesn't run it, can meet none.
ITransmitter* transmitterOrRefuse(const char* native) {
    ITransmitter* current = GetTransmitter();
    if (current == nullptr) {
        refuse(std::string(native) + ": no transmitter exists; call sendCommand first");
    }
    return current;
}

unsigned char lowByte(jint value) {
    return static_cast<unsigned char>(value & 0xFF);
}

// Runs body; a failure of any type becomes errorMessage and the failure code.
template <typename Body>
jint guarded(jint failureCode, Body&& body) {
    try {
        return withoutForeignThrowables(std::forward<Body>(body));
    } catch (const std::exception& exception) {
        setErrorMessage(exception.what());
        return failureCode;
    }
}

}  // namespace

}  // namespace Ostrelink::Runtimes::Jvm::Native::Entry

using namespace Ostrelink::Runtimes::Jvm::Native::Entry;

extern "C" JNIEnv* GetJNIEnv() {
    return javaEnv;
}

void AtStartUp() {
    if (firstCall.load(std::memory_order_acquire)) {
        SetOperationModeForTransmitter();
        firstCall.store(false, std::memory_order_release);
    }
}

// Both reach the configuration library, which may throw anything.
int SetConfigSource(std::string source) {
    return withoutForeignThrowables([&] { return ConfigHandler::SetConfigSource(source); });
}

int SetWorkingDirectoryPath(std::string path) {
    return withoutForeignThrowables([&] { return ConfigHandler::SetWorkingDirectory(path); });
}

extern "C" {

JNIEXPORT jint JNICALL Java_com_ostrelink_core_transmitter_TransmitterWrapper_sendCommand(
    JNIEnv* env, jclass, jbyteArray message) {
    return guarded(sendCommandFailed, [&]() -> jint {
        AtStartUp();
        if (message == nullptr) {
            refuse("sendCommand: the message byte array is null");
        }
        const jsize length = env->GetArrayLength(message);
        if (length < 1) {
            return 0;
        }
        jboolean copyFlag = JNI_FALSE;
        const ByteArrayElements elements(env, message, &copyFlag);
        if (elements.get() == nullptr) {
            refuse("sendCommand: failed to get byte array elements");
        }
        ITransmitter* current = transmitterOrRefuse("sendCommand");
        return current->SendCommand(elements.bytes(), length);
    });
}

JNIEXPORT jint JNICALL Java_com_ostrelink_core_transmitter_TransmitterWrapper_readResponse(
    JNIEnv* env, jclass, jbyteArray response) {
    return guarded(readResponseFailed, [&]() -> jint {
        if (response == nullptr) {
            refuse("readResponse: the response byte array is null");
        }
        const jsize length = env->GetArrayLength(response);
        if (length < 1) {
            return 0;
        }
        ITransmitter* current = transmitterOrRefuse("readResponse");
        // Byte 0 routes the read (the targetRuntime of the command); the rest starts as zeros,
        // and the whole buffer goes back, so what the reply doesn't fill reads as zero in Java.
        std::vector<unsigned char> buffer(static_cast<std::size_t>(length), 0);
        env->GetByteArrayRegion(response, 0, 1, reinterpret_cast<jbyte*>(buffer.data()));
        current->ReadResponse(buffer.data(), length);
        env->SetByteArrayRegion(response, 0, length, reinterpret_cast<const jbyte*>(buffer.data()));
        return 0;
    });
}

JNIEXPORT jint JNICALL Java_com_ostrelink_core_transmitter_TransmitterWrapper_setEmbeddedRuntime(
    JNIEnv* env, jclass, jint callingRuntime, jint calledRuntime, jint runtimeVersion,
    jstring path) {
    return guarded(setEmbeddedRuntimeFailed, [&]() -> jint {
        AtStartUp();
        std::string text = copyOf(env, path, &isCopy, "setEmbeddedRuntime", "path");
        ITransmitter* current = transmitterOrRefuse("setEmbeddedRuntime");
        return current->SetEmbeddedRuntime(lowByte(callingRuntime), lowByte(calledRuntime),
                                           lowByte(runtimeVersion), std::move(text));
    });
}

JNIEXPORT jint JNICALL Java_com_ostrelink_core_transmitter_TransmitterWrapper_deployRuntime(
    JNIEnv* env, jclass, jbyteArray message, jstring text, jint flag) {
    return guarded(deployRuntimeFailed, [&]() -> jint {
        AtStartUp();
        if (message == nullptr) {
            refuse("deployRuntime: the message byte array is null");
        }
        const jsize length = env->GetArrayLength(message);
        // The transmitter reads the routing fields without looking at the length, so a short
        // array would be read past its end.
        if (length < CommandHeader::size) {
            refuse("Message byte array length is less than " + std::to_string(CommandHeader::size));
        }
        const ByteArrayElements elements(env, message, &isCopy);
        if (elements.get() == nullptr) {
            refuse("deployRuntime: failed to get byte array elements");
        }
        std::string copy = copyOf(env, text, &isCopy, "deployRuntime", "text");
        ITransmitter* current = transmitterOrRefuse("deployRuntime");
        return current->DeployRuntime(elements.bytes(), length, std::move(copy), lowByte(flag));
    });
}

JNIEXPORT jint JNICALL Java_com_ostrelink_core_transmitter_TransmitterWrapper_setConfigSource(
    JNIEnv* env, jclass, jstring source) {
    return guarded(setConfigSourceFailed, [&]() -> jint {
        return ConfigHandler::SetConfigSource(
            copyOf(env, source, nullptr, "setConfigSource", "source"));
    });
}

JNIEXPORT jint JNICALL Java_com_ostrelink_core_transmitter_TransmitterWrapper_setWorkingDirectory(
    JNIEnv* env, jclass, jstring path) {
    return guarded(setWorkingDirectoryFailed, [&]() -> jint {
        return ConfigHandler::SetWorkingDirectory(
            copyOf(env, path, nullptr, "setWorkingDirectory", "path"));
    });
}

JNIEXPORT jstring JNICALL
Java_com_ostrelink_core_transmitter_TransmitterWrapper_getNativeError(JNIEnv* env, jclass) {
    try {
        return env->NewStringUTF(readErrorMessage().c_str());
    } catch (const std::bad_alloc&) {
        return nullptr;  // no memory for a copy of the text: Java gets null
    }
}

}  // extern "C"
