// The native half of NativesProbe's foreignThread case: a thread of another runtime, which the
// JVM has never seen, opens the runtime library, calls back into Java once and ends.
#include <dlfcn.h>
#include <jni.h>

#include <exception>
#include <string>
#include <thread>

#include <ostrelink/RuntimeFactories.h>

#include "common/Messages.h"

namespace {

std::string echoOnce(const std::string& runtimeLibrary) {
    void* library = dlopen(runtimeLibrary.c_str(), RTLD_NOW);
    if (library == nullptr) {
        return dlerror();
    }
    const auto create = reinterpret_cast<Ostrelink::Native::Interfaces::CreateReceiverFn>(
        dlsym(library, "CreateReceiver"));
    try {
        auto* receiver = create(Ostrelink::Native::Definitions::RuntimeOperationMode::Calling);
        receiver->Initialize(8, 2, 0);
        Bytes message = makeMessage(2, 0, "from a foreign thread");
        const int length = receiver->SendCommand(message.data(), static_cast<int>(message.size()));
        Bytes reply(static_cast<std::size_t>(length), 0);
        receiver->ReadResponse(reply.data(), length);
        return reply == message ? std::string() : "the echo differs from the message";
    } catch (const std::exception& failure) {
        return failure.what();
    }
}

}  // namespace

// Runs the foreign thread to its end; returns null, or the text of what went wrong.
extern "C" JNIEXPORT jstring JNICALL Java_NativesProbe_echoFromForeignThread(JNIEnv* env, jclass,
                                                                             jstring library) {
    const char* characters = env->GetStringUTFChars(library, nullptr);
    if (characters == nullptr) {
        return nullptr;
    }
    const std::string runtimeLibrary = characters;
    env->ReleaseStringUTFChars(library, characters);
    std::string failure;
    std::thread foreign([&] { failure = echoOnce(runtimeLibrary); });
    foreign.join();
    return failure.empty() ? nullptr : env->NewStringUTF(failure.c_str());
}
