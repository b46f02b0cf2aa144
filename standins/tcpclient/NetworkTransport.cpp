#include "NetworkTransport.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "Frame.h"
#include "Socket.h"
#include "StreamError.h"

namespace Ostrelink::Network::Client {

namespace {

// Idle connections kept for reuse; more concurrent commands than this open extra connections,
// which are closed after use.
constexpr std::size_t maxIdleConnections = 32;

// A server that refuses a connection, for instance a TLS server that wants a client
// certificate, says why before it closes; a send that failed since can still read that.
std::string closingReason(ByteChannel& connection) {
    try {
        unsigned char byte = 0;
        connection.readSome(&byte, 1, 100);
    } catch (const StreamError& error) {
        if (error.failure() == StreamFailure::Tls) {
            return std::string(" (") + error.what() + ")";
        }
    }
    return {};
}

}  // namespace

NetworkTransport::NetworkTransport(std::string host, unsigned short port)
    : m_host(std::move(host)), m_port(port), m_settings(ClientSettings::fromEnvironment()) {
    unsigned char address[4];
    if (!parseIpv4(m_host, address)) {
        throw NetworkError("Ostrelink network client: \"" + m_host +
                           "\" is not a numeric IPv4 address");
    }
    m_connector = makeConnector(m_settings);
}

NetworkTransport::~NetworkTransport() = default;

NetworkError NetworkTransport::failure(const std::string& cause) const {
    return NetworkError(std::string("Ostrelink ") + m_connector->kind() + " client " + m_host +
                        ":" + std::to_string(m_port) + ": " + cause);
}

int NetworkTransport::Initialize(unsigned char, unsigned char, unsigned char) {
    return 0;
}

std::unique_ptr<ByteChannel> NetworkTransport::takeConnection(bool& reused) {
    reused = true;
    for (;;) {
        std::vector<IdleConnection> expired;
        std::unique_ptr<ByteChannel> candidate;
        {
            std::lock_guard<std::mutex> lock(m_idleMutex);
            expired = expiredLocked(std::chrono::steady_clock::now());
            if (m_idle.empty()) {
                break;
            }
            candidate = std::move(m_idle.back().channel);
            m_idle.pop_back();
        }
        // Every time, however short the pause: a server that closed the connection since, or a
        // late frame that came after the reply, must be found before the command is written.
        // A frame would pass for this command's reply; a close would fail a command that the
        // server never saw.
        if (!candidate->pendingInputOrClosed()) {
            return candidate;
        }
    }
    reused = false;
    return openConnection();
}

std::unique_ptr<ByteChannel> NetworkTransport::openConnection() {
    try {
        return m_connector->open(m_host, m_port);
    } catch (const StreamError& error) {
        throw failure(std::string("cannot connect: ") + error.what());
    }
}

void NetworkTransport::keepConnection(std::unique_ptr<ByteChannel> connection) {
    std::vector<IdleConnection> expired;
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> lock(m_idleMutex);
    expired = expiredLocked(now);
    if (m_idle.size() < maxIdleConnections) {
        m_idle.push_back({std::move(connection), now});
    }
}

std::vector<NetworkTransport::IdleConnection> NetworkTransport::expiredLocked(
    std::chrono::steady_clock::time_point now) {
    const auto limit = std::chrono::milliseconds(m_settings.poolIdleMs);
    const auto young = std::find_if(m_idle.begin(), m_idle.end(), [&](const IdleConnection& idle) {
        return now - idle.since <= limit;
    });
    std::vector<IdleConnection> expired(std::make_move_iterator(m_idle.begin()),
                                        std::make_move_iterator(young));
    m_idle.erase(m_idle.begin(), young);
    return expired;
}

int NetworkTransport::SendCommand(unsigned char* message, int length) {
    if (length < 0 || (message == nullptr && length > 0)) {
        throw failure("invalid command: " + std::to_string(length) + " bytes at " +
                      (message == nullptr ? "null" : "a buffer"));
    }
    const std::uint32_t limit = std::min<std::uint32_t>(m_settings.maxFrameBytes, INT_MAX);
    if (static_cast<std::uint32_t>(length) > limit) {
        throw failure("command of " + std::to_string(length) + " bytes exceeds the limit of " +
                      std::to_string(limit) + " bytes");
    }
    // A reply this thread never read must not pass for the answer to a command that fails.
    m_replies.drop();
    bool reused = false;
    std::unique_ptr<ByteChannel> connection = takeConnection(reused);
    try {
        try {
            writeFrame(*connection, message, static_cast<std::size_t>(length),
                       m_settings.readTimeoutMs);
        } catch (const StreamError& error) {
            // Not a byte went out on a connection the server had closed: safe to send afresh.
            if (!reused || error.failure() != StreamFailure::Unsent) {
                throw;
            }
            connection = openConnection();
            writeFrame(*connection, message, static_cast<std::size_t>(length),
                       m_settings.readTimeoutMs);
        }
    } catch (const StreamError& error) {
        throw failure(std::string("cannot send the command: ") + error.what() +
                      closingReason(*connection));
    }
    std::vector<unsigned char> reply;
    try {
        auto frame = readFrame(*connection, limit, m_settings.readTimeoutMs);
        if (!frame) {
            throw failure(
                "connection closed by the server before the reply (the command was sent, so it "
                "is not sent again)");
        }
        reply = std::move(*frame);
    } catch (const StreamError& error) {
        switch (error.failure()) {
            case StreamFailure::TimedOut:
                throw failure("no reply within " + std::to_string(m_settings.readTimeoutMs) +
                              " ms (read time-out)");
            case StreamFailure::ClosedMidFrame:
                throw failure("connection closed by the server in the middle of the reply");
            case StreamFailure::Oversize:
                throw failure(std::string("reply refused: ") + error.what());
            default:
                throw failure(std::string("cannot receive the reply: ") + error.what());
        }
    }
    keepConnection(std::move(connection));
    const int replyLength = static_cast<int>(reply.size());
    m_replies.store(std::move(reply));
    return replyLength;
}

int NetworkTransport::ReadResponse(unsigned char* buffer, int length) {
    if (length < 0 || (buffer == nullptr && length > 0)) {
        throw failure("invalid reply buffer: " + std::to_string(length) + " bytes at " +
                      (buffer == nullptr ? "null" : "a buffer"));
    }
    std::vector<unsigned char> reply;
    if (!m_replies.take(reply)) {
        throw failure(
            "no reply stored for this thread (SendCommand must come first, on the same thread)");
    }
    const std::size_t count = std::min(reply.size(), static_cast<std::size_t>(length));
    if (count > 0) {
        std::memcpy(buffer, reply.data(), count);
    }
    return 0;
}

unsigned char NetworkTransport::SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char,
                                                   std::string) {
    return 0;
}

unsigned char NetworkTransport::DeployRuntime(unsigned char*, int, std::string, unsigned char) {
    return 0;
}

}  // namespace Ostrelink::Network::Client
