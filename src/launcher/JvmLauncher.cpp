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

// The reply store is keyed by pthread_self(), and the id of a thread that has ended is handed to
// the next new thread. So a thread drops the reply it left unread, in every launcher it stored
// one in, when it ends.
class JvmLauncher::ThreadReplyCleanup {
public:
    ThreadReplyCleanup() = default;
    ThreadReplyCleanup(const ThreadReplyCleanup&) = delete;
    ThreadReplyCleanup& operator=(const ThreadReplyCleanup&) = delete;

    ~ThreadReplyCleanup() {
        for (const auto& weakLink : m_links) {
            if (const auto link = weakLink.lock()) {
                std::lock_guard<std::mutex> lock(link->mutex);
                if (link->launcher != nullptr) {
                    link->launcher->DropReplyOfThread(pthread_self());
                }
            }
        }
    }

    void watch(const std::shared_ptr<ReplyStoreLink>& link) {
        const bool known =
            std::any_of(m_links.begin(), m_links.end(),
                        [&link](const auto& watched) { return watched.lock() == link; });
        if (!known) {
            m_links.push_back(link);
        }
    }

private:
    std::vector<std::weak_ptr<ReplyStoreLink>> m_links;
};

JvmLauncher::JvmLauncher(RuntimeOperationMode mode)
    : NativeLauncher(mode), m_replyStoreLink(std::make_shared<ReplyStoreLink>()) {
    m_replyStoreLink->launcher = this;
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

// Leaves the JVM running, its threads attached and its library open: the process may still use
// all of them, and a later launcher adopts the JVM.
JvmLauncher::~JvmLauncher() {
    std::lock_guard<std::mutex> lock(m_replyStoreLink->mutex);
    m_replyStoreLink->launcher = nullptr;
}

// Under the start's lock: a command that needs the JVM meanwhile waits for the library that this
// binds, and the fields written here are read by the start.
void JvmLauncher::Initialize(unsigned char /*runtimeVersion*/) {
    const std::lock_guard<std::mutex> lock(m_jvmInitMutex);
    SetJvmRuntimePath();
    LoadJvmSharedLibraryAndExportedFunctions();
    GetFunctionsPointers();
    if (m_operationMode == RuntimeOperationMode::Calling) {
        InitializeJvm();
    }
    if (m_debugMode) {
        std::cout << "Jvm Launcher: Debug mode enabled. Listening on port 8988. Waiting for "
                     "debugger to attach..."
                  << std::endl;
    }
}

int JvmLauncher::SendCommand(unsigned char* message, int length) {
    if (message == nullptr || length < CommandHeader::size) {
        RaiseLauncherException(
            "JVM Launcher: Exception code 042. Message is null or shorter than its 11-byte "
            "header");
    }
    const auto commandType = static_cast<CommandType>(message[CommandHeader::commandType]);
    if (commandType == CommandType::PlainCommand &&
        length >= CommandHeader::payloadTextOffset + healthCheckTextLength &&
        std::memcmp(message + CommandHeader::payloadTextOffset, healthCheckText,
                    healthCheckTextLength) == 0) {
        return StoreAcknowledgeReply();
    }
    if (commandType == CommandType::LoadLibraryCommand) {
        return HandleLoadLibraryCommand(message, length);
    }
    return SendToJava(message, length);
}

int JvmLauncher::StoreReply(std::vector<unsigned char> reply) {
    thread_local ThreadReplyCleanup cleanup;
    cleanup.watch(m_replyStoreLink);
    std::lock_guard<std::mutex> lock(m_responsesMutex);
    auto& entry = m_responses[pthread_self()];
    entry = std::move(reply);
    return static_cast<int>(entry.size());
}

int JvmLauncher::StoreAcknowledgeReply() {
    return StoreReply(
        std::vector<unsigned char>(acknowledgeReply, acknowledgeReply + acknowledgeReplyLength));
}

void JvmLauncher::DropReplyOfThread(pthread_t thread) {
    std::lock_guard<std::mutex> lock(m_responsesMutex);
    m_responses.erase(thread);
}

int JvmLauncher::ReadResponse(unsigned char* buffer, int length) {
    if (length < 0 || (buffer == nullptr && length > 0)) {
        RaiseLauncherException(
            "JVM Launcher: Exception code 043. Response buffer is null or its length is "
            "negative");
    }
    std::vector<unsigned char> reply;
    {
        std::lock_guard<std::mutex> lock(m_responsesMutex);
        const auto entry = m_responses.find(pthread_self());
        if (entry == m_responses.end()) {
            RaiseLauncherException(
                "JVM Launcher: Exception code 041.\nError while reading response");
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

unsigned char JvmLauncher::LoadOptimizedMethod(std::string /*method*/) {
    return 1;
}

unsigned char JvmLauncher::SetPath(unsigned char /*runtimeVersion*/, std::string /*path*/) {
    return 1;
}

unsigned char JvmLauncher::DeployRuntime(unsigned char* /*message*/, int /*length*/,
                                         std::string /*text*/, unsigned char /*flag*/) {
    return 1;
}

std::string JvmLauncher::GetRuntimeName() {
    return m_runtimeName;
}
