#include "endpoints/NativeTransmitter.h"

#include <atomic>
#include <sstream>
#include <utility>

#include "contracts/CommandHeader.h"
#include "contracts/ConnectionType.h"
#include "support/Failures.h"
#include "support/OstrelinkNativeException.h"
#include "support/ThreadRecord.h"
#include "transport/TransportInMemory.h"
#include "transport/TransportNetwork.h"

namespace Ostrelink::Native::Transmitter {

using Definitions::CommandHeader;
using Definitions::ConnectionType;
using Interfaces::ITransport;
using Transport::TransportInMemory;
using Transport::TransportNetwork;

namespace {

constexpr int shortestMessage = CommandHeader::size;

std::atomic<std::uint64_t> transmittersMade{0};

// The route of a message: the in-memory channel, or a network channel by address and port
// (address << 16 | port), with tlsRoute added for a message marked TLS. An installed channel has
// no route that a message could name.
constexpr std::uint64_t inMemoryRoute = ~std::uint64_t{0};
constexpr std::uint64_t installedRoute = ~std::uint64_t{0} - 1;
constexpr std::uint64_t tlsRoute = std::uint64_t{1} << 48;

std::uint64_t routeOf(const unsigned char* message) {
    const unsigned char type = message[CommandHeader::connectionType];
    if (type == static_cast<unsigned char>(ConnectionType::InMemory)) {
        return inMemoryRoute;
    }
    std::uint64_t address = 0;
    for (int octet = 0; octet < 4; ++octet) {
        address = address << 8 | message[CommandHeader::hostAddress + octet];
    }
    const auto port = static_cast<unsigned short>(message[CommandHeader::hostPort] |
                                                  (message[CommandHeader::hostPort + 1] << 8));
    return (address << 16 | port) +
           (type == static_cast<unsigned char>(ConnectionType::Tls) ? tlsRoute : 0);
}

// The calling thread's own entry of the transmitter it used last, mirrored in its record: only
// the thread itself changes its entry, so while it lives the entry holds the channel and the
// mirror can be read without the lock.
ThreadRecord::Channel& threadChannel() {
    return ThreadRecord::ofThisThread().channel;
}

// Code 023 for a connection type that names no channel, before anything is chosen.
void refuseUnknownConnectionType(const unsigned char* message) {
    if (message[CommandHeader::connectionType] > static_cast<unsigned char>(ConnectionType::Tls)) {
        Failures::raise(Failures::Failure::UnknownConnectionType);
    }
}

// Routing reads the header, so a message without a whole one is refused before any byte of it.
void refuseWithoutHeader(const unsigned char* message, int length) {
    if (message == nullptr || length < shortestMessage) {
        Failures::raise(Failures::Failure::ShortMessage);
    }
}

}  // namespace

NativeTransmitter::NativeTransmitter(Definitions::RuntimeOperationMode mode)
    : m_id(transmittersMade.fetch_add(1) + 1), m_operationMode(mode) {}

NativeTransmitter::~NativeTransmitter() = default;

int NativeTransmitter::SendCommand(unsigned char* message, int length) {
    if (length < shortestMessage) {
        throw OstrelinkNativeException(
            "Message byte array length is less than " + std::to_string(shortestMessage), "Unknown");
    }
    refuseWithoutHeader(message, length);
    // Another thread may make a different channel current meanwhile, and this message still
    // goes where its own header pointed.
    return selectAndInitialize(message).channel->SendCommand(message, length);
}

int NativeTransmitter::ReadResponse(unsigned char* buffer, int length) {
    const ThreadRecord::Channel& mirror = threadChannel();
    if (mirror.transmitterId == m_id) {
        return mirror.channel->ReadResponse(buffer, length);
    }
    std::shared_ptr<ITransport> channel;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto own = m_threadChannels.find(std::this_thread::get_id());
        channel = own != m_threadChannels.end() ? own->second : m_transportChannel;
    }
    if (!channel) {
        Failures::raise(Failures::Failure::NoChannelSelected);
    }
    return channel->ReadResponse(buffer, length);
}

void NativeTransmitter::SetTransportChannel(ITransport* channel) {
    // Should the control block fail to allocate, shared_ptr deletes channel before rethrowing.
    makeCurrent(std::shared_ptr<ITransport>(channel), nullptr);
}

unsigned char NativeTransmitter::SetEmbeddedRuntime(unsigned char callingRuntime,
                                                    unsigned char calledRuntime,
                                                    unsigned char runtimeVersion,
                                                    std::string path) {
    // Always the in-memory channel: there is no header to choose by.
    const std::shared_ptr<ITransport> channel = makeCurrent(nullptr, nullptr);
    channel->Initialize(callingRuntime, calledRuntime, runtimeVersion);
    return channel->SetEmbeddedRuntime(callingRuntime, calledRuntime, runtimeVersion,
                                       std::move(path));
}

unsigned char NativeTransmitter::DeployRuntime(unsigned char* message, int length, std::string text,
                                               unsigned char flag) {
    refuseWithoutHeader(message, length);
    return selectAndInitialize(message).channel->DeployRuntime(message, length, std::move(text),
                                                               flag);
}

std::shared_ptr<ITransport> NativeTransmitter::GetTransportChannel(unsigned char* message) {
    refuseUnknownConnectionType(message);
    return makeCurrent(nullptr, message);
}

int NativeTransmitter::InitializeTransportChannel(unsigned char* message) {
    return selectAndInitialize(message).initialized;
}

// A message's channel is the in-memory one or a network one, and neither goes before the
// transmitter does: a plain pointer is enough. When it already is the current channel and the
// thread's, selecting it changes nothing, and no lock is taken.
NativeTransmitter::Selected NativeTransmitter::selectAndInitialize(unsigned char* message) {
    refuseUnknownConnectionType(message);
    const ThreadRecord::Channel& mirror = threadChannel();
    ITransport* channel = mirror.channel;
    if (mirror.transmitterId != m_id || mirror.route != routeOf(message) ||
        m_currentChannel.load(std::memory_order_acquire) != channel) {
        channel = makeCurrent(nullptr, message).get();
    }
    const int initialized = channel->Initialize(message[CommandHeader::callingRuntime],
                                                message[CommandHeader::targetRuntime],
                                                message[CommandHeader::runtimeVersion]);
    return {channel, initialized};
}

std::shared_ptr<ITransport> NativeTransmitter::makeCurrent(std::shared_ptr<ITransport> installed,
                                                           const unsigned char* message) {
    // Declared before the lock, so released after it: the destructor of a channel installed by
    // SetTransportChannel is foreign code.
    std::shared_ptr<ITransport> replacedCurrent;
    std::shared_ptr<ITransport> replacedOfThread;
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::uint64_t route = installed            ? installedRoute
                                : message == nullptr ? inMemoryRoute
                                                     : routeOf(message);
    std::shared_ptr<ITransport> channel = installed ? std::move(installed)
                                          : route == inMemoryRoute
                                              ? inMemoryChannelLocked()
                                              : networkChannelLocked(route, message);
    // A thread that sends again on its channel changes nothing: no exchange, no count traffic.
    if (m_transportChannel != channel) {
        replacedCurrent = std::exchange(m_transportChannel, channel);
        m_currentChannel.store(channel.get(), std::memory_order_release);
    }
    std::shared_ptr<ITransport>& ofThread = m_threadChannels[std::this_thread::get_id()];
    if (ofThread != channel) {
        replacedOfThread = std::exchange(ofThread, channel);
    }
    threadChannel() = {m_id, route, channel.get()};
    return channel;
}

std::shared_ptr<ITransport> NativeTransmitter::CreateInMemoryTransportChannel() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return inMemoryChannelLocked();
}

std::shared_ptr<ITransport> NativeTransmitter::CreateNetworkChannel(unsigned char* message) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return networkChannelLocked(routeOf(message), message);
}

std::shared_ptr<ITransport> NativeTransmitter::inMemoryChannelLocked() {
    if (!m_inMemoryChannel) {
        m_inMemoryChannel = std::make_shared<TransportInMemory>();
    }
    return m_inMemoryChannel;
}

std::shared_ptr<ITransport> NativeTransmitter::networkChannelLocked(std::uint64_t route,
                                                                    const unsigned char* message) {
    // A message marked TLS never goes out in the clear: it has a TLS channel of its own for its
    // address, beside a plain one that a TCP message made. A TCP message takes the address's plain
    // channel, or its TLS channel when only that one exists. Either way a route always finds the
    // same channel once it has one.
    auto found = m_networkChannels.find(route);
    if (found == m_networkChannels.end() && (route & tlsRoute) == 0) {
        found = m_networkChannels.find(route | tlsRoute);
    }
    if (found == m_networkChannels.end()) {
        std::ostringstream host;
        for (int octet = 0; octet < 4; ++octet) {
            host << (octet != 0 ? "." : "")
                 << static_cast<unsigned>(message[CommandHeader::hostAddress + octet]);
        }
        const bool useTls = (route & tlsRoute) != 0;
        const auto port = static_cast<unsigned short>(route & 0xFFFF);
        found = m_networkChannels
                    .emplace(route, std::make_shared<TransportNetwork>(host.str(), port, useTls))
                    .first;
    }
    return found->second;
}

}  // namespace Ostrelink::Native::Transmitter
