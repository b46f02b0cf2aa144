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

// An idle connection is checked for a close by the server (one poll) only after this long;
// one used more recently goes straight to the write, and a close found after the request went
// out fails that command rather than sending it twice.
constexpr std::chrono::milliseconds staleCheckAfter{50};

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
    const auto now = std::chrono::steady_clock::now();
    {
        std::lock_guard<std::mutex> lock(m_idleMutex);
        while (!m_idle.empty()) {
            IdleConnection idle = std::move(m_idle.back());
            m_idle.pop_back();
            // The server closes idle connections after its own time-out.
            if (now - idle.since < staleCheckAfter || idle.channel->socket().idleAndOpen()) {
                return std::move(idle.channel);
            }
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
    // Bytes after the reply would pass for the start of the next one.
    if (connection->holdsUnreadBytes()) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_idleMutex);
    if (m_idle.size() < maxIdleConnections) {
        m_idle.push_back({std::move(connection), std::chrono::steady_clock::now()});
    }
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
    {
        std::lock_guard<std::mutex> lock(m_repliesMutex);
        m_replies.erase(std::this_thread::get_id());
    }
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
    std::lock_guard<std::mutex> lock(m_repliesMutex);
    m_replies[std::this_thread::get_id()] = std::move(reply);
    return replyLength;
}

int NetworkTransport::ReadResponse(unsigned char* buffer, int length) {
    if (length < 0 || (buffer == nullptr && length > 0)) {
        throw failure("invalid reply buffer: " + std::to_string(length) + " bytes at " +
                      (buffer == nullptr ? "null" : "a buffer"));
    }
    std::vector<unsigned char> reply;
    {
        std::lock_guard<std::mutex> lock(m_repliesMutex);
        const auto stored = m_replies.find(std::this_thread::get_id());
        if (stored == m_replies.end()) {
            throw failure(
                "no reply stored for this thread (SendCommand must come first, on "
                "the same thread)");
        }
        reply = std::move(stored->second);
        m_replies.erase(stored);
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
