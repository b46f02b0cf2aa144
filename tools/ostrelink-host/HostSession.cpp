#include "HostSession.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include <ostrelink/CommandHeader.h>
#include <ostrelink/CommandType.h>
#include <ostrelink/Runtime.h>

using Ostrelink::Native::Definitions::CommandHeader;
using Ostrelink::Native::Definitions::CommandType;
using Ostrelink::Native::Definitions::Runtime;

namespace {

// The receiver protocol of the runtime jar (docs/protocol.md).
constexpr int operationOffset = 11;
constexpr unsigned char echoOperation = 0;
constexpr unsigned char invokeOperation = 1;
constexpr unsigned char runtimeInfoOperation = 2;
constexpr auto plainCommand = static_cast<unsigned char>(CommandType::PlainCommand);
constexpr auto loadLibraryCommand = static_cast<unsigned char>(CommandType::LoadLibraryCommand);
constexpr auto exceptionReply = static_cast<unsigned char>(CommandType::ExceptionReply);
constexpr auto jvmRuntime = static_cast<unsigned char>(Runtime::Jvm);
constexpr auto cppRuntime = static_cast<unsigned char>(Runtime::Cpp);

std::vector<unsigned char> message(unsigned char commandType, unsigned char operation,
                                   const std::string& payloadText) {
    // Sized once and filled: gcc 12 takes an insert behind the header for an overflow.
    std::vector<unsigned char> bytes(
        static_cast<std::size_t>(CommandHeader::payloadTextOffset) + payloadText.size(), 0);
    bytes[CommandHeader::targetRuntime] = jvmRuntime;
    bytes[CommandHeader::callingRuntime] = cppRuntime;
    bytes[CommandHeader::commandType] = commandType;
    bytes[operationOffset] = operation;
    std::copy(payloadText.begin(), payloadText.end(),
              bytes.begin() + CommandHeader::payloadTextOffset);
    return bytes;
}

std::string payloadText(const std::vector<unsigned char>& reply) {
    return std::string(reply.begin() + CommandHeader::payloadTextOffset, reply.end());
}

bool isAcknowledge(const std::vector<unsigned char>& reply) {
    using Ostrelink::Native::Definitions::acknowledgeReply;
    return std::equal(reply.begin(), reply.end(), std::begin(acknowledgeReply),
                      std::end(acknowledgeReply));
}

}  // namespace

void HostSession::initialize(Ostrelink::Native::Interfaces::IReceiver* receiver) {
    receiver->Initialize(cppRuntime, jvmRuntime, 0);
}

void HostSession::run(const HostStep& step, std::ostream& out) {
    switch (step.kind) {
        case HostStep::Kind::Health:
            checkHealth();
            out << "health: ok\n";
            break;
        case HostStep::Kind::Load:
            for (const std::string& path : step.arguments) {
                if (!isAcknowledge(exchange(message(loadLibraryCommand, 0, path)))) {
                    throw std::runtime_error("load of " + path + " was not acknowledged");
                }
                out << "load: " << path << '\n';
            }
            break;
        case HostStep::Kind::Call: {
            std::string fields;
            for (const std::string& field : step.arguments) {
                if (!fields.empty()) {
                    fields.push_back('\0');
                }
                fields += field;
            }
            const std::string result = askJava(invokeOperation, fields);
            out << "call: " << result << '\n';
            break;
        }
        // Each result is had before its line begins: a command that fails leaves no line.
        case HostStep::Kind::Echo: {
            const std::string reply = echo(step.arguments.front());
            out << "echo: " << reply << '\n';
            break;
        }
        case HostStep::Kind::Info: {
            const std::string info = javaRuntimeInfo();
            // The text ends with a newline of its own.
            out << "info:\n" << info;
            break;
        }
    }
    out.flush();
}

void HostSession::checkHealth() {
    const Bytes reply =
        exchange(message(plainCommand, 0, Ostrelink::Native::Definitions::healthCheckText));
    if (!isAcknowledge(reply)) {
        throw std::runtime_error("health check answered with " + std::to_string(reply.size()) +
                                 " bytes that are no acknowledgement");
    }
}

std::string HostSession::echo(const std::string& text) {
    const Bytes request = message(plainCommand, echoOperation, text);
    const Bytes reply = exchange(request);
    if (reply != request) {
        throw std::runtime_error("echo came back changed, " + std::to_string(reply.size()) +
                                 " bytes for " + std::to_string(request.size()));
    }
    return payloadText(reply);
}

std::string HostSession::javaRuntimeInfo() {
    return askJava(runtimeInfoOperation, {});
}

HostSession::Bytes HostSession::exchange(Bytes request) {
    const int length = m_receiver->SendCommand(request.data(), static_cast<int>(request.size()));
    Bytes reply(static_cast<std::size_t>(std::max(length, 0)));
    m_receiver->ReadResponse(reply.data(), length);
    return reply;
}

std::string HostSession::askJava(unsigned char operation, const std::string& payload) {
    const Bytes reply = exchange(message(plainCommand, operation, payload));
    if (reply.size() < static_cast<std::size_t>(CommandHeader::payloadTextOffset)) {
        throw std::runtime_error("the JVM answered with " + std::to_string(reply.size()) +
                                 " bytes, fewer than a reply of the receiver protocol holds");
    }
    if (reply[CommandHeader::commandType] == exceptionReply) {
        throw std::runtime_error(payloadText(reply));
    }
    return payloadText(reply);
}
