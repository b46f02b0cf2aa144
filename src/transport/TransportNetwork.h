#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "contracts/ITransport.h"
#include "contracts/RuntimeFactories.h"

namespace Ostrelink::Native::Transport {

// The channel for connectionType 1 (TCP) and 2 (TLS): a lazy wrapper around the ITransport that
// the client library's CreateTransportChannel makes for one host and port. Everything on the wire
// is the client library's. The client library's handle is LibrariesFinder's, shared by every
// object, and never closed.
//
// Threads. Several threads may send their first message to one host and port at once, so
// Initialize runs under m_initializeMutex: the library is loaded, the client object made and its
// Initialize called once, and m_channel is written once. SendCommand and ReadResponse take no
// lock: they read the client object from m_client, published once it is whole. Whether the
// client object itself may be used by several threads at once is the client library's business.
class TransportNetwork : public Interfaces::ITransport {
public:
    // Stores its arguments; loads nothing and connects nowhere.
    TransportNetwork(std::string host, unsigned short port, bool useTls = false);
    ~TransportNetwork() override;
    TransportNetwork(const TransportNetwork&) = delete;
    TransportNetwork& operator=(const TransportNetwork&) = delete;

    int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                   unsigned char runtimeVersion) override;
    // Both throw code 013 when no Initialize has made a client object yet.
    int SendCommand(unsigned char* message, int length) override;
    int ReadResponse(unsigned char* buffer, int length) override;
    // Nothing to do over the network: both return 0.
    unsigned char SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char calledRuntime,
                                     unsigned char runtimeVersion, std::string path) override;
    unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                unsigned char flag) override;

    int ImportTcpClientLibrary();
    int ImportTcpTlsClientLibrary();
    int CreateTransportTcpChannel(unsigned char callingRuntime, unsigned char calledRuntime,
                                  unsigned char runtimeVersion);
    int CreateTransportTcpTlsChannel(unsigned char callingRuntime, unsigned char calledRuntime,
                                     unsigned char runtimeVersion);
    // Does nothing: kept as the channel's documented surface, the client libraries being loaded
    // by the two Import steps above.
    int ImportLibraryAndExportedFunctions();

private:
    int createClientChannel(void* library, std::shared_ptr<Interfaces::ITransport>& channel,
                            unsigned char callingRuntime, unsigned char calledRuntime,
                            unsigned char runtimeVersion);
    Interfaces::ITransport& channel() const;

    void* m_tcpClientLibrary = nullptr;
    void* m_tcpTlsClientLibrary = nullptr;
    std::shared_ptr<Interfaces::ITransport> m_tcpChannel;
    std::shared_ptr<Interfaces::ITransport> m_tcpTlsChannel;
    std::shared_ptr<Interfaces::ITransport> m_channel;
    // m_channel's object, published with release ordering once m_channel is set. SendCommand and
    // ReadResponse read it without m_initializeMutex: a thread that never sent reads from the
    // transmitter's current channel, whose first Initialize may be running on another thread.
    std::atomic<Interfaces::ITransport*> m_client{nullptr};
    Interfaces::CreateTransportChannelFn m_createTransportChannel = nullptr;
    std::string m_host;
    unsigned short m_port;
    bool m_useTls;
    std::mutex m_initializeMutex;
};

}  // namespace Ostrelink::Native::Transport
