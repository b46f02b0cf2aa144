#include "HostedRuntime.h"

#include <ostrelink/CommandHeader.h>
#include <ostrelink/CommandType.h>
#include <ostrelink/RuntimeFactories.h>

#include <dlfcn.h>

#include <algorithm>

namespace Ostrelink::Network::Server {

namespace {

using Native::Definitions::CommandHeader;

constexpr auto exceptionReplyType =
    static_cast<unsigned char>(Native::Definitions::CommandType::ExceptionReply);
constexpr unsigned char noRuntime = 255;

}  // namespace

HostedRuntime::HostedRuntime(const std::string& path, int runtimeCode)
    : m_runtimeCode(static_cast<unsigned char>(runtimeCode)) {
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* error = dlerror();
        throw RuntimeLoadError("cannot load the runtime library " + path + ": " +
                               (error != nullptr ? error : "unknown error"));
    }
    void* factory = dlsym(library, "CreateReceiver");
    if (factory == nullptr) {
        throw RuntimeLoadError("the runtime library " + path + " has no CreateReceiver");
    }
    m_receiver = reinterpret_cast<Native::Interfaces::CreateReceiverFn>(factory)(
        Native::Definitions::RuntimeOperationMode::Called);
    if (m_receiver == nullptr) {
        throw RuntimeLoadError("CreateReceiver of " + path + " returned no receiver");
    }
    m_receiver->Initialize(noRuntime, m_runtimeCode, 0);
}

std::vector<unsigned char> HostedRuntime::errorReply(const std::vector<unsigned char>& request,
                                                     const std::string& text) const {
    const auto offset = static_cast<std::size_t>(CommandHeader::payloadTextOffset);
    std::vector<unsigned char> reply(offset + text.size(), 0);
    if (request.size() > static_cast<std::size_t>(CommandHeader::callingRuntime)) {
        reply[CommandHeader::targetRuntime] = request[CommandHeader::callingRuntime];
    }
    reply[CommandHeader::callingRuntime] = m_runtimeCode;
    reply[CommandHeader::commandType] = exceptionReplyType;
    std::copy(text.begin(), text.end(), reply.begin() + static_cast<std::ptrdiff_t>(offset));
    return reply;
}

std::vector<unsigned char> HostedRuntime::handle(std::vector<unsigned char>& request) const {
    if (request.size() < static_cast<std::size_t>(CommandHeader::size)) {
        return errorReply(request, "ostrelink-server: a message of " +
                                       std::to_string(request.size()) +
                                       " bytes is shorter than its 11-byte header");
    }
    try {
        const int length =
            m_receiver->SendCommand(request.data(), static_cast<int>(request.size()));
        if (length < 0) {
            return errorReply(request, "ostrelink-server: the runtime returned a reply length of " +
                                           std::to_string(length));
        }
        std::vector<unsigned char> reply(static_cast<std::size_t>(length));
        m_receiver->ReadResponse(reply.data(), length);
        return reply;
    } catch (const std::exception& error) {
        return errorReply(request, error.what());
    } catch (...) {
        return errorReply(request, "ostrelink-server: the runtime threw an unknown exception");
    }
}

}  // namespace Ostrelink::Network::Server
