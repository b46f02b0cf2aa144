#include "launcher/JvmLauncher.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "contracts/CommandHeader.h"
#include "contracts/CommandType.h"

using Ostrelink::Native::Definitions::acknowledgeReply;
using Ostrelink::Native::Definitions::acknowledgeReplyLength;
using Ostrelink::Native::Definitions::CommandHeader;
using Ostrelink::Native::Definitions::CommandType;
using Ostrelink::Native::Definitions::healthCheckText;
using Ostrelink::Native::Definitions::healthCheckTextLength;
using Ostrelink::Native::Definitions::RuntimeOperationMode;

JvmLauncher::JvmLauncher(RuntimeOperationMode mode) : NativeLauncher(mode) {
    m_responses.max_load_factor(1.0F);
    const char* debugMode = std::getenv("OSTRELINK_DEBUG_MODE");
    if (debugMode == nullptr) {
        return;
    }
    std::cout << "OSTRELINK_DEBUG_MODE found: " << debugMode << std::endl;
    std::string value = debugMode;
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    m_debugMode = value == "true";
}

// Leaves the JVM running and its library open: the process may still use both.
JvmLauncher::~JvmLauncher() = default;

void JvmLauncher::Initialize(unsigned char /*runtimeVersion*/) {}

int JvmLauncher::SendCommand(unsigned char* message, int length) {
    const auto commandType = static_cast<CommandType>(message[CommandHeader::commandType]);
    if (commandType == CommandType::PlainCommand &&
        length >= CommandHeader::payloadTextOffset + healthCheckTextLength &&
        std::memcmp(message + CommandHeader::payloadTextOffset, healthCheckText,
                    healthCheckTextLength) == 0) {
        return StoreAcknowledgeReply();
    }
    return SendToJava(message, length);
}

int JvmLauncher::SendToJava(unsigned char* /*message*/, int /*length*/) {
    throw OstrelinkNativeException("JVM Launcher: Exception code 050. JVM not initialized",
                                   "Unknown");
}

int JvmLauncher::StoreReply(std::vector<unsigned char> reply) {
    std::lock_guard<std::mutex> lock(m_responsesMutex);
    auto& entry = m_responses[pthread_self()];
    entry = std::move(reply);
    return static_cast<int>(entry.size());
}

int JvmLauncher::StoreAcknowledgeReply() {
    return StoreReply(std::vector<unsigned char>(acknowledgeReply,
                                                 acknowledgeReply + acknowledgeReplyLength));
}

int JvmLauncher::ReadResponse(unsigned char* buffer, int length) {
    std::vector<unsigned char> reply;
    {
        std::lock_guard<std::mutex> lock(m_responsesMutex);
        const auto entry = m_responses.find(pthread_self());
        if (entry == m_responses.end()) {
            throw OstrelinkNativeException(
                "JVM Launcher: Exception code 041.\nError while reading response", "Unknown");
        }
        reply = std::move(entry->second);
        m_responses.erase(entry);
    }
    const auto count = std::min(reply.size(), static_cast<std::size_t>(length));
    if (count != 0) {
        std::memcpy(buffer, reply.data(), count);
    }
    return 0;
}

unsigned char JvmLauncher::LoadOptimizedMethod(std::string /*method*/) { return 1; }

unsigned char JvmLauncher::SetPath(unsigned char /*runtimeVersion*/, std::string /*path*/) {
    return 1;
}

unsigned char JvmLauncher::DeployRuntime(unsigned char* /*message*/, int /*length*/,
                                         std::string /*text*/, unsigned char /*flag*/) {
    return 1;
}

std::string JvmLauncher::GetRuntimeName() { return m_runtimeName; }

std::string JvmLauncher::GetRuntimeInfo() { return {}; }
