// The launcher's dispatch and load-library parsing, through the exported receiver of the staged
// library. The receiver is made once and never initialised, so no JVM is ever bound: the native
// commands (health check, load library) must be answered, and a command that needs Java must fail
// with a clear exception. Load-library paths resolve inside a sandbox directory.
//
// Input: byte 0 picks the message kind and how the length is passed, byte 1 how the reply is
// read, byte 2 how much to shorten the length; the rest is the message.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <vector>

#include <ostrelink/CommandHeader.h>
#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeOperationMode.h>

#include "FuzzSupport.h"

using Ostrelink::Native::Definitions::acknowledgeReply;
using Ostrelink::Native::Definitions::acknowledgeReplyLength;
using Ostrelink::Native::Definitions::CommandHeader;
using Ostrelink::Native::Definitions::healthCheckText;
using Ostrelink::Native::Definitions::healthCheckTextLength;
using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::IReceiver;

namespace {

IReceiver* receiver = nullptr;

enum class Kind { LoadLibrary, HealthCheck, PlainCommand, AsGiven };
enum class LengthMode { Exact, Negative, Shortened, Zero };
enum class ReadMode { Whole, Empty, Short, Twice };

std::vector<unsigned char> buildMessage(Kind kind, const std::uint8_t* data, std::size_t size) {
    std::vector<unsigned char> message(data, data + size);
    const auto header = static_cast<std::size_t>(CommandHeader::payloadTextOffset);
    switch (kind) {
        case Kind::LoadLibrary:
            if (message.size() > CommandHeader::commandType) {
                message[CommandHeader::commandType] = 1;
            }
            break;
        case Kind::HealthCheck:
            // The fuzzer's bytes fill the header and follow the check text.
            message.resize(std::max(message.size(), header), 0);
            message.insert(message.begin() + static_cast<std::ptrdiff_t>(header), healthCheckText,
                           healthCheckText + healthCheckTextLength);
            message[CommandHeader::commandType] = 0;
            break;
        case Kind::PlainCommand:
            if (message.size() > CommandHeader::commandType) {
                message[CommandHeader::commandType] = 0;
            }
            break;
        case Kind::AsGiven:
            break;
    }
    return message;
}

int passedLength(LengthMode mode, std::size_t size, std::uint8_t cut) {
    const int whole = static_cast<int>(size);
    switch (mode) {
        case LengthMode::Exact:
            return whole;
        case LengthMode::Negative:
            return cut % 2 == 0 ? -whole - 1 : INT_MIN;
        case LengthMode::Shortened:
            return whole - (cut % (whole + 1));
        case LengthMode::Zero:
            return 0;
    }
    return whole;
}

bool isHealthCheck(const std::vector<unsigned char>& message, int length) {
    return length >= CommandHeader::payloadTextOffset + healthCheckTextLength &&
           message[CommandHeader::commandType] == 0 &&
           std::memcmp(message.data() + CommandHeader::payloadTextOffset, healthCheckText,
                       healthCheckTextLength) == 0;
}

void readReply(ReadMode mode, int replyLength) {
    fuzz::check(replyLength == acknowledgeReplyLength, "a native command answers 17 bytes");
    // Exactly the bytes asked for, so that the sanitizer sees any write past them.
    const int asked = mode == ReadMode::Empty ? 0 : mode == ReadMode::Short ? 5 : replyLength;
    std::vector<unsigned char> buffer(static_cast<std::size_t>(asked) + 1, 0xAA);
    fuzz::check(receiver->ReadResponse(buffer.data(), asked) == 0, "ReadResponse returns 0");
    fuzz::check(std::memcmp(buffer.data(), acknowledgeReply, static_cast<std::size_t>(asked)) == 0,
                "the reply is acknowledgeReply");
    fuzz::check(buffer[static_cast<std::size_t>(asked)] == 0xAA, "nothing written past length");
    if (mode == ReadMode::Twice) {
        bool refused = false;
        try {
            receiver->ReadResponse(buffer.data(), asked);
        } catch (const std::exception&) {
            refused = true;
        }
        fuzz::check(refused, "a reply is read once");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::quietFailureReporting();
    void* library =
        fuzz::openLibrary(std::string(OSTRELINK_NATIVE_DIR) + "libOstrelinkJvmRuntimeNative.so");
    fuzz::pointErrorLogNowhere(library);
    using CreateReceiverFn = IReceiver* (*)(RuntimeOperationMode);
    receiver = reinterpret_cast<CreateReceiverFn>(fuzz::findSymbol(library, "CreateReceiver"))(
        RuntimeOperationMode::Called);
    fuzz::check(receiver != nullptr, "CreateReceiver(1) gives a receiver");
    fuzz::enterSandbox("ostrelink-fuzz-launcher");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::uint8_t control = input.byte();
    const std::uint8_t reading = input.byte();
    const std::uint8_t cut = input.byte();
    const auto kind = static_cast<Kind>(control & 3);
    const auto lengthMode = static_cast<LengthMode>((control >> 2) & 3);
    const auto readMode = static_cast<ReadMode>(reading & 3);

    std::vector<unsigned char> message = buildMessage(kind, input.rest(), input.restSize());
    const int length = passedLength(lengthMode, message.size(), cut);
    // The buffer holds exactly the bytes that length admits (none for a negative one), so the
    // sanitizer catches any read beyond them.
    const std::size_t admitted =
        static_cast<std::size_t>(std::max(0, std::min(length, static_cast<int>(message.size()))));
    const auto owned = std::make_unique<unsigned char[]>(admitted);
    std::copy_n(message.begin(), admitted, owned.get());
    const std::vector<unsigned char> exact(message.begin(),
                                           message.begin() + static_cast<std::ptrdiff_t>(admitted));
    unsigned char* bytes = owned.get();

    int replyLength = -1;
    try {
        replyLength = receiver->SendCommand(bytes, length);
    } catch (const std::exception&) {
        // Refusals are expected: short or negative lengths, missing paths, no JVM bound,
        // file-system errors. A health check must never be refused.
        fuzz::check(!(length > 0 && isHealthCheck(exact, length)), "a health check is answered");
        return 0;
    }
    fuzz::check(length >= CommandHeader::size, "a message shorter than its header is refused");
    const unsigned char commandType = bytes[CommandHeader::commandType];
    fuzz::check(commandType == 1 || isHealthCheck(exact, length),
                "only native commands succeed without a JVM");
    readReply(readMode, replyLength);
    return 0;
}
