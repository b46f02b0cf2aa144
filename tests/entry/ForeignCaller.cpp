// The native half of NativesProbe's foreignThread case: a thread of another runtime, which the
// JVM has never seen, opens the runtime library, calls back into Java once and ends.
#include <jni.h>

#include <exception>
#include <string>
#include <thread>

#include <ostrelink/RuntimeFactories.h>

#include "common/HostLibrary.h"
#include "common/Messages.h"

using namespace Ostrelink::Native;

// Runs the foreign thread to its end; returns null, or the text of what went wrong.
extern "C" JNIEXPORT jstring JNICALL Java_NativesProbe_echoFromForeignThread(JNIEnv* env, jclass,
                                                                             jstring library) {
    const char* characters = env->GetStringUTFChars(library, nullptr);
    const std::string path = characters;
    env->ReleaseStringUTFChars(library, characters);
    std::string failure;
    std::thread([&] {
        try {
            const HostLibrary runtime(path);
            auto* receiver = runtime.get<Interfaces::CreateReceiverFn>("CreateReceiver")(
                Definitions::RuntimeOperationMode::Calling);
            receiver->Initialize(8, 2, 0);
            Bytes message = makeMessage(2, 0, "from a foreign thread");
            Bytes reply(static_cast<std::size_t>(
                receiver->SendCommand(message.data(), static_cast<int>(message.size()))));
            receiver->ReadResponse(reply.data(), static_cast<int>(reply.size()));
            failure = reply == message ? "" : "the echo differs from the message";
        } catch (const std::exception& thrown) {
            failure = thrown.what();
        }
    }).join();
    return failure.empty() ? nullptr : env->NewStringUTF(failure.c_str());
}
