// Opens the installed JVM runtime library, sends a health check and a Java call (the JVM starts
// for it), and prints both results. docs/host-api.md says what each call does.
#include <dlfcn.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <ostrelink/CommandHeader.h>
#include <ostrelink/RuntimeFactories.h>

using namespace Ostrelink::Native;
using Header = Definitions::CommandHeader;

// One command from the Cpp runtime (8) to the JVM (2); the reply is read on the same thread.
// Byte 11 is the Java receiver's operation (1: call a static method), byte 24 on its text.
std::string send(Interfaces::IReceiver* jvm, unsigned char operation, const std::string& text) {
    std::vector<unsigned char> message(Header::payloadTextOffset, 0);
    message[Header::targetRuntime] = 2;
    message[Header::callingRuntime] = 8;
    message[Header::size] = operation;
    message.insert(message.end(), text.begin(), text.end());
    const int length = jvm->SendCommand(message.data(), int(message.size()));
    std::vector<unsigned char> reply(static_cast<std::size_t>(length));
    jvm->ReadResponse(reply.data(), length);
    const auto payload = reply.size() > Header::payloadTextOffset
                             ? reply.begin() + Header::payloadTextOffset
                             : reply.end();
    if (reply.size() > Header::commandType && reply[Header::commandType] == 10) {
        throw std::runtime_error("Java: " + std::string(payload, reply.end()));
    }
    return std::string(payload, reply.end());
}

int main() {
    void* library = dlopen(JVM_RUNTIME, RTLD_NOW | RTLD_LOCAL);
    auto* create = reinterpret_cast<Interfaces::CreateReceiverFn>(
        library ? dlsym(library, "CreateReceiver") : nullptr);
    if (create == nullptr) {
        std::fprintf(stderr, "cannot open %s: %s\n", JVM_RUNTIME, dlerror());
        return 1;
    }
    try {  // the library reports a failure by throwing, with its text
        Interfaces::IReceiver* jvm = create(Definitions::RuntimeOperationMode::Called);
        jvm->Initialize(8, 2, 0);
        // The health check's reply is the 17-byte acknowledgement: no text of its own.
        send(jvm, 0, Definitions::healthCheckText);
        std::printf("health: ok\n");
        std::string call("java.lang.System\0getProperty\0java.version", 41);
        std::printf("java.version: %s\n", send(jvm, 1, call).c_str());
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
