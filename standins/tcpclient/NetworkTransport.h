#pragma once

#include <ostrelink/ITransport.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ByteChannel.h"
#include "ClientSettings.h"
#include "Connector.h"
#include "NetworkError.h"
#include "ReplySlots.h"

namespace Ostrelink::Network::Client {

// The object that CreateTransportChannel hands out: one peer, any number of threads. Each command
// runs on a connection of its own for its duration, taken from a small pool of idle ones or made
// afresh, so replies never mix between threads. A connection that failed is dropped, and the next
// command connects again. Replies are kept per calling thread until that thread reads them.
class NetworkTransport : public Native::Interfaces::ITransport {
public:
    NetworkTransport(std::string host, unsigned short port);
    ~NetworkTransport() override;
    NetworkTransport(const NetworkTransport&) = delete;
    NetworkTransport& operator=(const NetworkTransport&) = delete;

    int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                   unsigned char runtimeVersion) override;
    int SendCommand(unsigned char* message, int length) override;
    int ReadResponse(unsigned char* buffer, int length) override;
    unsigned char SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char calledRuntime,
                                     unsigned char runtimeVersion, std::string path) override;
    unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                unsigned char flag) override;

private:
    struct IdleConnection {
        std::unique_ptr<ByteChannel> channel;
        std::chrono::steady_clock::time_point since;
    };

    // An idle connection fit for a request (reused true) or a new one.
    std::unique_ptr<ByteChannel> takeConnection(bool& reused);
    std::unique_ptr<ByteChannel> openConnection();
    void keepConnection(std::unique_ptr<ByteChannel> connection);
    // With m_idleMutex held: moves out the connections idle for longer than the pool keeps them,
    // to be closed after unlocking.
    std::vector<IdleConnection> expiredLocked(std::chrono::steady_clock::time_point now);
    NetworkError failure(const std::string& cause) const;

    std::string m_host;
    unsigned short m_port;
    ClientSettings m_settings;
    std::unique_ptr<Connector> m_connector;

    std::mutex m_idleMutex;
    // Oldest first: a command takes the one used last, so those beyond the recent need age out.
    std::vector<IdleConnection> m_idle;

    ReplySlots m_replies;
};

}  // namespace Ostrelink::Network::Client
