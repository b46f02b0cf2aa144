#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "contracts/ITransmitter.h"
#include "contracts/ITransport.h"
#include "contracts/RuntimeOperationMode.h"

namespace Ostrelink::Native::Transport {
class TransportInMemory;
}

namespace Ostrelink::Native::Transmitter {

// The outbound endpoint: reads the routing bytes of each message's header, picks or makes the
// channel they name, initialises it with the header's runtimes and forwards the message.
//
// Threads. Java and host threads send at once. m_mutex guards the channel maps,
// m_transportChannel and the per-thread record; it is held only while a channel is chosen,
// never across a channel's Initialize, SendCommand or ReadResponse. ReadResponse reads from the
// channel that served the calling thread's own last selection (m_threadChannels), so a reply is
// never looked for on a channel that another thread picked in between; a thread that never
// selected reads from the transmitter's current channel, m_transportChannel. The record keeps one
// entry per thread id that ever sent; the system reuses the ids of ended threads, so it grows
// with the peak number of sending threads, not with the number of messages. Only a thread itself
// changes its entry, so it keeps a thread-local mirror of the entry of the transmitter it used
// last: a message whose channel already is the thread's and the current one, and the read after
// it, take no lock.
class NativeTransmitter : public Interfaces::ITransmitter {
public:
    explicit NativeTransmitter(Definitions::RuntimeOperationMode mode);
    ~NativeTransmitter() override;
    NativeTransmitter(const NativeTransmitter&) = delete;
    NativeTransmitter& operator=(const NativeTransmitter&) = delete;

    // SendCommand and DeployRuntime refuse a message without a whole header before reading a byte
    // of it: code 034 (a short one gets SendCommand's length text there).
    int SendCommand(unsigned char* message, int length) override;
    int ReadResponse(unsigned char* buffer, int length) override;
    // Takes ownership and makes channel current for the transmitter and the calling thread. It is
    // destroyed once both have selected another channel.
    void SetTransportChannel(Interfaces::ITransport* channel) override;
    unsigned char SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char calledRuntime,
                                     unsigned char runtimeVersion, std::string path) override;
    unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                unsigned char flag) override;

    // Selects the channel for message, makes it current (for the transmitter and for the calling
    // thread) and returns it. Throws code 023 for an unknown connectionType, choosing nothing.
    std::shared_ptr<Interfaces::ITransport> GetTransportChannel(unsigned char* message);
    // The transmitter's documented surface; nothing in this library calls these three.
    // GetTransportChannel, then the channel's Initialize with header bytes 9, 0, 1.
    int InitializeTransportChannel(unsigned char* message);
    // The channel, made if missing, without making it current.
    std::shared_ptr<Interfaces::ITransport> CreateInMemoryTransportChannel();
    std::shared_ptr<Interfaces::ITransport> CreateNetworkChannel(unsigned char* message);

private:
    // Both with m_mutex held.
    std::shared_ptr<Interfaces::ITransport> inMemoryChannelLocked();
    std::shared_ptr<Interfaces::ITransport> networkChannelLocked(std::uint64_t route,
                                                                 const unsigned char* message);
    // The one way a channel becomes current, for the transmitter and the calling thread: the
    // installed one if given, else the channel of message's header, else (no message) the
    // in-memory one. What it replaces is released after unlocking.
    std::shared_ptr<Interfaces::ITransport> makeCurrent(
        std::shared_ptr<Interfaces::ITransport> installed, const unsigned char* message);
    // The one path of a message: its channel selected as GetTransportChannel selects it (without
    // the lock when nothing would change), then the channel's Initialize with header bytes 9, 0, 1
    // (calling, target as the called runtime, version).
    struct Selected {
        Interfaces::ITransport* channel;
        int initialized;
    };
    Selected selectAndInitialize(unsigned char* message);

    // Tells this transmitter's entries in the threads' mirrors from those of an earlier one.
    const std::uint64_t m_id;
    std::mutex m_mutex;
    // Declared so that destruction releases m_threadChannels and m_transportChannel first, then
    // m_networkChannels, then m_inMemoryChannel.
    std::shared_ptr<Transport::TransportInMemory> m_inMemoryChannel;
    // Keyed by address and port (address << 16 | port), and for a TLS channel bit 48 set too:
    // finding a channel builds no text. An address may have a plain and a TLS channel.
    std::map<std::uint64_t, std::shared_ptr<Interfaces::ITransport>> m_networkChannels;
    std::shared_ptr<Interfaces::ITransport> m_transportChannel;
    // m_transportChannel's object, for the check without the lock.
    std::atomic<Interfaces::ITransport*> m_currentChannel{nullptr};
    std::map<std::thread::id, std::shared_ptr<Interfaces::ITransport>> m_threadChannels;

protected:
    // The side of a call this transmitter was made for. Routing never depends on it.
    const Definitions::RuntimeOperationMode m_operationMode;
};

}  // namespace Ostrelink::Native::Transmitter
