#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "HostedRuntime.h"
#include "ServerOptions.h"
#include "Socket.h"
#include "TlsChannel.h"

namespace Ostrelink::Network::Server {

// Accepts connections and serves each on a thread of its own: read a frame, run it through the
// hosted runtime on that same thread, write the reply frame, until the peer leaves, stalls past
// the idle time-out or breaks the framing. At capacity, a new client waits in the listen queue;
// to admit it, the connection idle between frames the longest is closed.
class Server {
public:
    // Builds the TLS context if asked for and starts listening; throws std::runtime_error.
    Server(const ServerOptions& options, const HostedRuntime& runtime);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // "ADDR:PORT" actually bound, the port resolved when 0 was asked for.
    std::string endpoint() const;
    // Serves until stopFd becomes readable, then drains: closes the listener, ends idle
    // connections, lets each command in progress send its reply, and joins every thread. False
    // when the drain time ran out first: the busy connections are then shut down and named on
    // standard error, but their threads still run inside the hosted runtime, so the caller must
    // end the process without destroying this object.
    bool run(int stopFd);

private:
    struct Session {
        std::thread thread;
        // A second descriptor of the connection, only for shutting it down from outside: the
        // thread may close its own at any moment, and that number could be reused at once.
        Socket shutdownHandle;
        std::string peer;
        // Since when (steady clock ticks) the connection has been waiting for a frame, or busy
        // (handshake, a frame begun, a command, a reply) or closing to make room. The session
        // and the accepting thread change it only by compare-and-swap, so a frame whose first
        // byte came in is never taken for idle.
        static constexpr std::int64_t busy = -1;
        static constexpr std::int64_t closing = -2;
        std::atomic<std::int64_t> idleSince{busy};
        std::atomic<bool> finished{false};
    };

    void accept();
    void serve(Session& session, Socket socket, std::string peer);
    // At capacity with a client in the listen queue: closes the connection idle the longest,
    // unless such a close is still under way.
    void makeRoom();
    void reapFinished();
    void stopSessions();
    bool drain();

    const ServerOptions& m_options;
    const HostedRuntime& m_runtime;
    SslContext m_tls;
    Socket m_listener;
    unsigned short m_port = 0;

    // Touched only by the accepting thread; a session thread only sets its own idleSince and
    // finished flag, the latter under m_finishedMutex, wakes a drain waiting on
    // m_finishedChanged and the accepting loop through m_sessionEnded (an eventfd).
    std::list<Session> m_sessions;
    Socket m_sessionEnded;
    std::mutex m_finishedMutex;
    std::condition_variable m_finishedChanged;
};

}  // namespace Ostrelink::Network::Server
