#include "TransportSupport.h"

#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <thread>
#include <vector>

#include <ostrelink/RuntimeFactories.h>

#include "common/StageCopy.h"

using Ostrelink::Native::Interfaces::ITransmitter;

namespace {

// A copy of the staged tree for this process, removed at its end; its libraries stay mapped.
struct Installation {
    std::string directory = std::filesystem::temp_directory_path() / "ostrelink-transport-XXXXXX";
    std::string native;
    explicit Installation(const std::string& name) {
        mkdtemp(directory.data());
        const std::string variant = TRANSPORT_VARIANTS_DIR + name + ".so";
        const std::string recording = TRANSPORT_VARIANTS_DIR "RecordingClient.so";
        native = name == "recording" ? copyStage(directory, {},
                                                 {{"libOstrelinkTcpClient.so", recording},
                                                  {"libOstrelinkTcpTlsClient.so", recording}})
                 : name.rfind("Client", 0) == 0
                     ? copyStage(directory, {"libOstrelinkTcpTlsClient.so"},
                                 {{"libOstrelinkTcpClient.so", variant}})
                     : copyStage(directory, {}, {{"libOstrelinkCppRuntimeNative.so", variant}});
    }
    ~Installation() { std::filesystem::remove_all(directory); }
};

}  // namespace

std::string installedFile(const std::string& installation, const std::string& file) {
    static std::map<std::string, Installation> made;
    return made.try_emplace(installation, installation).first->second.native + file;
}

ITransmitter* transmitterOf(const std::string& installation) {
    static std::map<std::string, HostLibrary> opened;
    const HostLibrary& library =
        installation.empty()
            ? HostLibrary::jvmRuntime()
            : opened
                  .try_emplace(installation,
                               installedFile(installation, "libOstrelinkJvmRuntimeNative.so"))
                  .first->second;
    return library.get<Ostrelink::Native::Interfaces::CreateTransmitterFn>("CreateTransmitter")(
        Ostrelink::Native::Definitions::RuntimeOperationMode::Calling);
}

Bytes routedMessage(unsigned char targetRuntime, unsigned char callingRuntime,
                    unsigned char connectionType, const std::string& payloadText,
                    const unsigned char (&address)[4], unsigned short port) {
    Bytes message = makeMessage(targetRuntime, 0, payloadText, callingRuntime);
    setRoute(message, connectionType, address, port);
    return message;
}

int wrongReplies(ITransmitter* sender, int threads, unsigned char readFrom,
                 const std::function<std::pair<Bytes, Bytes>(int, const std::string&)>& exchange) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) {
        running.emplace_back([&, i] {
            for (int round = 0; round < 300; ++round) {
                const auto [message, expected] =
                    exchange(i, std::to_string(i) + " of " + std::to_string(round));
                try {
                    wrong += sendAndRead(sender, message, readFrom) != expected;
                } catch (const std::exception&) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : running) {
        thread.join();
    }
    return wrong;
}
