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

namespace {
std::atomic<std::uint64_t> launchersMade{0};
// A reply buffer keeps this much capacity for the next command of its thread; a larger one is
// freed once read.
constexpr std::size_t keptReplyCapacity = 64 * 1024;

// "true" in any case, nothing else: no trimming.
bool isTrue(const char* value) {
    std::string lowered = value;
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lowered == "true";
}
}  // namespace

JvmLauncher::JvmLauncher(RuntimeOperationMode mode)
    : NativeLauncher(mode), m_id(launchersMade.fetch_add(1) + 1) {
    const char* keepAttached = std::getenv("OSTRELINK_KEEP_THREADS_ATTACHED");
    m_keepThreadsAttached = keepAttached != nullptr && isTrue(keepAttached);
    const char* debugMode = std::getenv("OSTRELINK_DEBUG_MODE");
    if (debugMode == nullptr) {
        return;
    }
    std::cout << "OSTRELINK_DEBUG_MODE found: " << debugMode << std::endl;
    m_debugMode = isTrue(debugMode);
}

// Leaves the JVM running, its threads attached and its library open: the process may still use
// all of them, and a later launcher adopts the JVM. Replies left unread stay with their threads,
// under an id that no later launcher has, until those threads end.
JvmLauncher::~JvmLauncher() = default;

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
        RaiseLauncherException(Failure::ShortCommand);
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

// Each thread keeps its own replies: no lock and no shared map on the way of a command, no reply
// can reach another thread (also not one that inherits the id of an ended thread), and the
// replies go when their thread ends. One entry per launcher the thread has used; a process has
// one receiver, so one entry. They live in the thread's record, which a command sent while the
// thread ends (from a host's thread_local or key destructor) finds or makes again.
ThreadRecord::Reply& JvmLauncher::ReplyOfThisThread() {
    std::vector<ThreadRecord::Reply>& replies = ThreadRecord::ofThisThread().replies;
    for (auto& reply : replies) {
        if (reply.launcherId == m_id) {
            return reply;
        }
    }
    return replies.emplace_back(ThreadRecord::Reply{m_id, {}, false});
}

int JvmLauncher::StoreReply(const unsigned char* bytes, std::size_t size) {
    ThreadRecord::Reply& reply = ReplyOfThisThread();
    reply.bytes.assign(bytes, bytes + size);
    reply.stored = true;
    return static_cast<int>(size);
}

int JvmLauncher::StoreAcknowledgeReply() {
    return StoreReply(acknowledgeReply, acknowledgeReplyLength);
}

int JvmLauncher::ReadResponse(unsigned char* buffer, int length) {
    if (length < 0 || (buffer == nullptr && length > 0)) {
        RaiseLauncherException(Failure::BadResponseBuffer);
    }
    ThreadRecord::Reply& reply = ReplyOfThisThread();
    if (!reply.stored) {
        RaiseLauncherException(Failure::NoReply);
    }
    reply.stored = false;
    const auto count = std::min(reply.bytes.size(), static_cast<std::size_t>(length));
    if (count != 0) {
        std::memcpy(buffer, reply.bytes.data(), count);
    }
    if (reply.bytes.capacity() > keptReplyCapacity) {
        std::vector<unsigned char>().swap(reply.bytes);
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
