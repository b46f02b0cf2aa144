#include "transport/TransportNetwork.h"

#include <dlfcn.h>

#include <utility>

#include "support/Failures.h"
#include "support/LibrariesFinder.h"

namespace Ostrelink::Native::Transport {

using Failures::Failure;
using Failures::raise;
using Interfaces::CreateTransportChannelFn;
using Interfaces::ITransport;
using LibrariesFinder::LibrariesFinder;

TransportNetwork::TransportNetwork(std::string host, unsigned short port, bool useTls)
    : m_host(std::move(host)), m_port(port), m_useTls(useTls) {}

// The fields go in reverse order of declaration: m_host first, then m_channel, m_tcpTlsChannel
// and m_tcpChannel. The client object goes with its last reference; its library stays loaded.
TransportNetwork::~TransportNetwork() = default;

int TransportNetwork::Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                                 unsigned char runtimeVersion) {
    std::lock_guard<std::mutex> lock(m_initializeMutex);
    if (m_useTls) {
        ImportTcpTlsClientLibrary();
        CreateTransportTcpTlsChannel(callingRuntime, calledRuntime, runtimeVersion);
        if (!m_channel) {
            m_channel = m_tcpTlsChannel;
        }
    } else {
        ImportTcpClientLibrary();
        CreateTransportTcpChannel(callingRuntime, calledRuntime, runtimeVersion);
        if (!m_channel) {
            m_channel = m_tcpChannel;
        }
    }
    if (!m_channel) {
        raise(Failure::NoNetworkChannel);
    }
    if (m_client.load(std::memory_order_relaxed) == nullptr) {
        m_client.store(m_channel.get(), std::memory_order_release);
    }
    return 0;
}

int TransportNetwork::SendCommand(unsigned char* message, int length) {
    return channel().SendCommand(message, length);
}

int TransportNetwork::ReadResponse(unsigned char* buffer, int length) {
    return channel().ReadResponse(buffer, length);
}

unsigned char TransportNetwork::SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char,
                                                   std::string) {
    return 0;
}

unsigned char TransportNetwork::DeployRuntime(unsigned char*, int, std::string, unsigned char) {
    return 0;
}

int TransportNetwork::ImportTcpClientLibrary() {
    if (m_tcpClientLibrary == nullptr) {
        m_tcpClientLibrary = LibrariesFinder::loadTcpClientLibrary(true);
    }
    return 0;
}

int TransportNetwork::ImportTcpTlsClientLibrary() {
    if (m_tcpTlsClientLibrary == nullptr) {
        m_tcpTlsClientLibrary = LibrariesFinder::loadTcpTlsClientLibrary(true);
    }
    return 0;
}

int TransportNetwork::CreateTransportTcpChannel(unsigned char callingRuntime,
                                                unsigned char calledRuntime,
                                                unsigned char runtimeVersion) {
    return createClientChannel(m_tcpClientLibrary, m_tcpChannel, callingRuntime, calledRuntime,
                               runtimeVersion);
}

int TransportNetwork::CreateTransportTcpTlsChannel(unsigned char callingRuntime,
                                                   unsigned char calledRuntime,
                                                   unsigned char runtimeVersion) {
    return createClientChannel(m_tcpTlsClientLibrary, m_tcpTlsChannel, callingRuntime,
                               calledRuntime, runtimeVersion);
}

int TransportNetwork::ImportLibraryAndExportedFunctions() {
    return 0;
}

int TransportNetwork::createClientChannel(void* library, std::shared_ptr<ITransport>& channel,
                                          unsigned char callingRuntime, unsigned char calledRuntime,
                                          unsigned char runtimeVersion) {
    if (channel) {
        return 0;
    }
    m_createTransportChannel =
        reinterpret_cast<CreateTransportChannelFn>(dlsym(library, "CreateTransportChannel"));
    if (m_createTransportChannel == nullptr) {
        raise(Failure::NoCreateTransportChannel);
    }
    // The caller owns what the factory returns, and deletes it through its virtual destructor.
    channel.reset(m_createTransportChannel(m_host, m_port));
    if (!channel) {
        raise(Failure::NullTransportChannel);
    }
    // Runs once per object, so the client object hears only the first message's runtimes. A
    // failure here leaves the object stored and not initialised; it is not retried.
    channel->Initialize(callingRuntime, calledRuntime, runtimeVersion);
    return 0;
}

ITransport& TransportNetwork::channel() const {
    ITransport* client = m_client.load(std::memory_order_acquire);
    if (client == nullptr) {
        raise(Failure::NoNetworkChannel);
    }
    return *client;
}

}  // namespace Ostrelink::Native::Transport
