// The transmitter's header handling, through the exported CreateTransmitter of a copy of the
// staged tree whose TCP and TLS client libraries only record (RecordingClient.cpp): arbitrary
// connection types, addresses and ports, and in-memory messages to runtimes whose libraries
// don't exist. Nothing connects anywhere.
//
// Input: byte 0 picks the operation and how the length is passed, byte 1 how much to shorten
// it; the rest is the message.

#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <ostrelink/CommandHeader.h>
#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeOperationMode.h>

#include "FuzzSupport.h"
#include "common/StageCopy.h"

using Ostrelink::Native::Definitions::CommandHeader;
using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::ITransmitter;

namespace {

ITransmitter* transmitter = nullptr;
// The channels of each host and port so far. A message marked TLS rides the address's TLS
// channel, made at need; a TCP one its plain channel, or the TLS one when there is only that.
std::map<std::string, std::set<std::string>> kindsOfKey;

constexpr unsigned char jvmRuntime = 2;

enum class Operation { Send, SendShortened, Deploy, Embed };

// The library of runtime 2 is the one under test: loading it again as a sibling would bind a
// JVM. Every other code names a missing library, except 8, the Cpp stand-in.
unsigned char awayFromJvm(unsigned char runtime) {
    return runtime == jvmRuntime ? static_cast<unsigned char>(3) : runtime;
}

std::string expectedKey(const unsigned char* header) {
    std::string host;
    for (int octet = 0; octet < 4; ++octet) {
        host += (octet == 0 ? "" : ".") +
                std::to_string(static_cast<unsigned>(header[CommandHeader::hostAddress + octet]));
    }
    const unsigned port =
        header[CommandHeader::hostPort] + 256U * header[CommandHeader::hostPort + 1];
    return host + ":" + std::to_string(port);
}

// Notes the channel that a network message makes or finds; returns its kind.
std::string noteChannel(const std::vector<unsigned char>& message) {
    std::set<std::string>& kinds = kindsOfKey[expectedKey(message.data())];
    const bool onlyTls = kinds.count("tcp") == 0 && kinds.count("tls") != 0;
    const std::string kind = message[CommandHeader::connectionType] == 2 || onlyTls ? "tls" : "tcp";
    kinds.insert(kind);
    return kind;
}

// A network reply is the message, then "<kind> <key>" from the recording client.
void checkNetworkReply(const std::vector<unsigned char>& message, int length, int replyLength) {
    const std::string tag = noteChannel(message) + " " + expectedKey(message.data());
    fuzz::check(replyLength == length + static_cast<int>(tag.size()),
                "the reply comes from the channel of the header's address");
    std::vector<unsigned char> reply(static_cast<std::size_t>(replyLength), 0);
    transmitter->ReadResponse(reply.data(), replyLength);
    fuzz::check(std::equal(message.begin(), message.begin() + length, reply.begin()),
                "the message reaches the client unchanged");
    fuzz::check(std::equal(tag.begin(), tag.end(), reply.begin() + length),
                "host, port and kind are those of the header");
}

void send(std::vector<unsigned char>& message, int length) {
    const std::size_t admitted = static_cast<std::size_t>(std::max(0, length));
    const auto bytes = std::make_unique<unsigned char[]>(admitted);
    std::copy_n(message.begin(), admitted, bytes.get());
    const unsigned char connectionType =
        length >= CommandHeader::size ? message[CommandHeader::connectionType] : 0;

    int replyLength = -1;
    try {
        replyLength = transmitter->SendCommand(bytes.get(), length);
    } catch (const std::exception&) {
        // Short messages, unknown connection types and missing libraries are refused; the
        // recording client itself never fails.
        fuzz::check(length < CommandHeader::size || connectionType == 0 || connectionType > 2,
                    "a network message with a valid header is delivered");
        return;
    }
    fuzz::check(length >= CommandHeader::size, "a message shorter than 11 bytes is refused");
    fuzz::check(connectionType <= 2, "an unknown connection type is refused");
    if (connectionType != 0) {
        checkNetworkReply(message, length, replyLength);
        return;
    }
    // Only the Cpp stand-in answers in memory; it echoes or answers a query.
    fuzz::check(message[CommandHeader::targetRuntime] == 8, "only runtime 8 exists in memory");
    std::vector<unsigned char> reply(static_cast<std::size_t>(std::max(1, replyLength)), 0);
    reply[0] = message[CommandHeader::targetRuntime];
    transmitter->ReadResponse(reply.data(), replyLength);
}

// The native directory of a copy of the staged tree for this process (fork mode starts many),
// whose network client libraries only record; the copy goes when the process ends.
std::string recordingCopy() {
    static const struct Copy {
        std::string directory;
        std::string native;
        Copy() {
            std::string pattern = "/tmp/ostrelink-fuzz-XXXXXX";
            directory = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
            fuzz::check(!directory.empty(), "a temporary directory for the copy");
            native = copyStage(directory, {},
                               {{"libOstrelinkTcpClient.so", FUZZ_RECORDING_CLIENT},
                                {"libOstrelinkTcpTlsClient.so", FUZZ_RECORDING_CLIENT}});
        }
        ~Copy() {
            std::error_code ignored;
            std::filesystem::remove_all(directory, ignored);
        }
    } copy;
    return copy.native;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::quietFailureReporting();
    void* library = fuzz::openLibrary(recordingCopy() + "libOstrelinkJvmRuntimeNative.so");
    fuzz::pointErrorLogNowhere(library);
    using CreateTransmitterFn = ITransmitter* (*)(RuntimeOperationMode);
    transmitter = reinterpret_cast<CreateTransmitterFn>(
        fuzz::findSymbol(library, "CreateTransmitter"))(RuntimeOperationMode::Calling);
    fuzz::check(transmitter != nullptr, "CreateTransmitter(0) gives a transmitter");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::uint8_t control = input.byte();
    const std::uint8_t cut = input.byte();
    std::vector<unsigned char> message(input.rest(), input.rest() + input.restSize());
    if (message.size() > CommandHeader::callingRuntime) {
        message[CommandHeader::targetRuntime] = awayFromJvm(message[CommandHeader::targetRuntime]);
        message[CommandHeader::callingRuntime] =
            awayFromJvm(message[CommandHeader::callingRuntime]);
    }
    const int whole = static_cast<int>(message.size());

    switch (static_cast<Operation>(control & 3)) {
        case Operation::Send:
            send(message, whole);
            break;
        case Operation::SendShortened:
            send(message, (control & 4) != 0 ? -1 - cut : whole - cut % (whole + 1));
            break;
        case Operation::Deploy:
            // DeployRuntime checks no length: the caller owes it a whole header.
            if (message.size() >= CommandHeader::size) {
                const unsigned char connectionType = message[CommandHeader::connectionType];
                if (connectionType == 1 || connectionType == 2) {
                    noteChannel(message);
                }
                try {
                    transmitter->DeployRuntime(message.data(), whole, "deploy", cut);
                } catch (const std::exception&) {
                    fuzz::check(message[CommandHeader::connectionType] == 0 ||
                                    message[CommandHeader::connectionType] > 2,
                                "a network deployment does nothing and never fails");
                }
            }
            break;
        case Operation::Embed:
            try {
                const unsigned char called = awayFromJvm(input.byte());
                std::string path(input.rest(), input.rest() + input.restSize());
                transmitter->SetEmbeddedRuntime(awayFromJvm(cut), called, 0, std::move(path));
            } catch (const std::exception&) {
                // Missing runtime libraries.
            }
            break;
    }
    return 0;
}
