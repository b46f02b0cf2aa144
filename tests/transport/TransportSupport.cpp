#include "TransportSupport.h"

#include <stdlib.h>

#include <filesystem>
#include <map>
#include <memory>

#include <ostrelink/RuntimeFactories.h>

#include "common/StageCopy.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateTransmitterFn;
using Ostrelink::Native::Interfaces::ITransmitter;

namespace {

// A copy of the staged tree for this process, removed at its end; its libraries stay mapped.
struct Installation {
    std::string directory = std::filesystem::temp_directory_path() / "ostrelink-transport-XXXXXX";
    std::string native;
    explicit Installation(const std::string& name) {
        mkdtemp(directory.data());
        const std::string variant = std::string(TRANSPORT_VARIANTS_DIR) + name + ".so";
        if (name == "recording") {
            native = copyStage(
                directory, {},
                {{"libOstrelinkTcpClient.so", TRANSPORT_VARIANTS_DIR "RecordingClient.so"},
                 {"libOstrelinkTcpTlsClient.so", TRANSPORT_VARIANTS_DIR "RecordingClient.so"}});
        } else if (name.rfind("Client", 0) == 0) {
            native = copyStage(directory, {"libOstrelinkTcpTlsClient.so"},
                               {{"libOstrelinkTcpClient.so", variant}});
        } else {
            native = copyStage(directory, {}, {{"libOstrelinkCppRuntimeNative.so", variant}});
        }
    }
    ~Installation() { std::filesystem::remove_all(directory); }
};

}  // namespace

std::string installedFile(const std::string& installation, const std::string& file) {
    static std::map<std::string, std::unique_ptr<Installation>> made;
    auto& copy = made[installation];
    if (!copy) {
        copy = std::make_unique<Installation>(installation);
    }
    return copy->native + file;
}

ITransmitter* transmitterOf(const std::string& installation) {
    static std::map<std::string, std::unique_ptr<HostLibrary>> opened;
    auto& library = opened[installation];
    if (!library && !installation.empty()) {
        library = std::make_unique<HostLibrary>(
            installedFile(installation, "libOstrelinkJvmRuntimeNative.so"));
    }
    return (library ? *library : HostLibrary::jvmRuntime())
        .get<CreateTransmitterFn>("CreateTransmitter")(RuntimeOperationMode::Calling);
}

Bytes routedMessage(unsigned char targetRuntime, unsigned char callingRuntime,
                    unsigned char connectionType, const std::string& payloadText,
                    const unsigned char (&address)[4], unsigned short port) {
    Bytes message = makeMessage(targetRuntime, 0, payloadText, callingRuntime);
    setRoute(message, connectionType, address, port);
    return message;
}
