#include "OutboundSupport.h"

#include <gtest/gtest.h>

#include <exception>
#include <map>
#include <memory>

#include <ostrelink/RuntimeFactories.h>

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateTransmitterFn;
using Ostrelink::Native::Interfaces::ITransmitter;

std::string installedFile(const std::string& installation, const std::string& file) {
    return std::string(OUTBOUND_INSTALLS_DIR) + installation + "/" + OUTBOUND_NATIVE_SUBDIR + file;
}

HostLibrary& stagedRuntime() {
    return HostLibrary::jvmRuntime();
}

HostLibrary& installedRuntime(const std::string& installation) {
    // Kept open for the life of the process, like every runtime library.
    static std::map<std::string, std::unique_ptr<HostLibrary>> opened;
    auto& library = opened[installation];
    if (!library) {
        library = std::make_unique<HostLibrary>(
            installedFile(installation, "libOstrelinkJvmRuntimeNative.so"));
    }
    return *library;
}

ITransmitter* createTransmitter(HostLibrary& library, RuntimeOperationMode mode) {
    return library.get<CreateTransmitterFn>("CreateTransmitter")(mode);
}

Bytes routedMessage(unsigned char targetRuntime, unsigned char callingRuntime,
                    unsigned char connectionType, const std::string& payloadText,
                    const unsigned char (&address)[4], unsigned short port) {
    Bytes message = makeMessage(targetRuntime, 0, payloadText, callingRuntime);
    setRoute(message, connectionType, address, port);
    return message;
}

Bytes sendAndRead(ITransmitter* transmitter, Bytes message, unsigned char readFrom) {
    const int length = transmitter->SendCommand(message.data(), static_cast<int>(message.size()));
    Bytes reply(static_cast<std::size_t>(length), 0);
    if (!reply.empty()) {
        reply[0] = readFrom;
    }
    EXPECT_EQ(transmitter->ReadResponse(reply.data(), length), 0);
    return reply;
}
