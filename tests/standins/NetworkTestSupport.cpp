#include "NetworkTestSupport.h"

#include <ostrelink/RuntimeFactories.h>

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

// A TCP socket bound to 127.0.0.1:port (0: any), or connected to it; -1 if that fails.
int loopbackSocket(unsigned short port, bool connect, int flags = 0) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const auto* where = reinterpret_cast<sockaddr*>(&address);
    if ((connect ? ::connect(fd, where, sizeof(address)) : ::bind(fd, where, sizeof(address))) !=
        0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

unsigned short portOf(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

}  // namespace

PeerLink::PeerLink(int fd, SSL_CTX* tls) : m_fd(fd) {
    if (tls != nullptr) {
        m_ssl = SSL_new(tls);
        m_in = BIO_new(BIO_s_mem());
        m_out = BIO_new(BIO_s_mem());
        if (m_ssl == nullptr || m_in == nullptr || m_out == nullptr) {
            BIO_free(m_in);
            BIO_free(m_out);
            SSL_free(m_ssl);
            throw std::runtime_error("test peer: cannot set up TLS");
        }
        // An empty input BIO asks for more rather than ending the stream.
        BIO_set_mem_eof_return(m_in, -1);
        SSL_set_bio(m_ssl, m_in, m_out);
        SSL_set_accept_state(m_ssl);
        handshake();
    }
}

PeerLink::~PeerLink() {
    SSL_free(m_ssl);
}

void PeerLink::handshake() {
    for (;;) {
        const int result = SSL_do_handshake(m_ssl);
        flush();
        if (result == 1) {
            return;
        }
        if (SSL_get_error(m_ssl, result) != SSL_ERROR_WANT_READ || !pull()) {
            throw std::runtime_error("test peer: TLS handshake failed");
        }
    }
}

void PeerLink::flush() {
    Bytes records(static_cast<std::size_t>(BIO_pending(m_out)));
    if (!records.empty()) {
        BIO_read(m_out, records.data(), static_cast<int>(records.size()));
        std::size_t done = 0;
        while (done < records.size()) {
            const ssize_t sent =
                ::send(m_fd, records.data() + done, records.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                throw std::runtime_error("test peer: send failed");
            }
            done += static_cast<std::size_t>(sent);
        }
    }
}

bool PeerLink::pull() {
    unsigned char buffer[16384];
    const ssize_t got = ::recv(m_fd, buffer, sizeof(buffer), 0);
    if (got < 0) {
        throw std::runtime_error("test peer: receive failed");
    }
    BIO_write(m_in, buffer, static_cast<int>(got));
    return got > 0;
}

std::size_t PeerLink::receive(unsigned char* buffer, std::size_t size) {
    if (m_ssl == nullptr) {
        const ssize_t got = ::recv(m_fd, buffer, size, 0);
        if (got < 0) {
            throw std::runtime_error("test peer: receive failed");
        }
        return static_cast<std::size_t>(got);
    }
    for (;;) {
        std::size_t got = 0;
        const int result = SSL_read_ex(m_ssl, buffer, size, &got);
        flush();
        if (result == 1) {
            return got;
        }
        const int error = SSL_get_error(m_ssl, result);
        if (error == SSL_ERROR_ZERO_RETURN) {
            return 0;
        }
        if (error != SSL_ERROR_WANT_READ) {
            throw std::runtime_error("test peer: TLS receive failed");
        }
        if (!pull()) {
            return 0;
        }
    }
}

void PeerLink::send(const std::vector<Bytes>& pieces) {
    if (m_ssl == nullptr) {
        Bytes all;
        for (const Bytes& piece : pieces) {
            all.insert(all.end(), piece.begin(), piece.end());
        }
        return writeRaw(m_fd, all);
    }
    for (const Bytes& piece : pieces) {
        std::size_t written = 0;
        if (SSL_write_ex(m_ssl, piece.data(), piece.size(), &written) != 1) {
            throw std::runtime_error("test peer: TLS send failed");
        }
    }
    flush();
}

void PeerLink::sendSessionTicket() {
    if (SSL_new_session_ticket(m_ssl) != 1 || SSL_do_handshake(m_ssl) != 1) {
        throw std::runtime_error("test peer: cannot send a session ticket");
    }
    flush();
}

void PeerLink::sendKeyUpdate() {
    if (SSL_key_update(m_ssl, SSL_KEY_UPDATE_NOT_REQUESTED) != 1 || SSL_do_handshake(m_ssl) != 1) {
        throw std::runtime_error("test peer: cannot send a key update");
    }
    flush();
}

// Bytes not yet acknowledged by the client (the end of the stream counts as one) are what
// SIOCOUTQ reports; none left means the client's kernel holds them all.
void PeerLink::waitUntilDelivered() const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int unacknowledged = 0;
    while (::ioctl(m_fd, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged > 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("test peer: the client did not take what was sent");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void PeerLink::hangUp() {
    if (m_ssl != nullptr) {
        SSL_shutdown(m_ssl);
        flush();
    }
    ::shutdown(m_fd, SHUT_WR);
    waitUntilDelivered();
}

TestPeer::TestPeer(Handler handler, Kind kind) {
    if (kind == Kind::Tls) {
        const TestCertificates certificates;
        m_tls.reset(SSL_CTX_new(TLS_server_method()));
        if (!m_tls || SSL_CTX_set_min_proto_version(m_tls.get(), TLS1_2_VERSION) != 1 ||
            SSL_CTX_use_certificate_chain_file(m_tls.get(), certificates.serverCert.c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(m_tls.get(), certificates.serverKey.c_str(),
                                        SSL_FILETYPE_PEM) != 1) {
            throw std::runtime_error("test peer: cannot set up its TLS context");
        }
    }
    m_listener = loopbackSocket(0, false, SOCK_NONBLOCK);
    if (m_listener < 0 || ::listen(m_listener, 16) != 0) {
        throw std::runtime_error("test peer cannot listen");
    }
    m_port = portOf(m_listener);
    m_thread = std::thread([this, handler = std::move(handler)] {
        std::vector<std::thread> workers;
        while (!m_stop) {
            pollfd entry{m_listener, POLLIN, 0};
            const int fd = ::poll(&entry, 1, 50) > 0
                               ? ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)
                               : -1;
            if (fd < 0) {
                continue;
            }
            // Blocking, but never for ever: a handler waiting on a silent client gives up.
            const timeval limit{5, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
            ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
            {
                std::lock_guard<std::mutex> lock(m_openMutex);
                m_open.insert(fd);
            }
            workers.emplace_back([this, fd, index = m_connections++, &handler] {
                try {
                    PeerLink link(fd, m_tls.get());
                    handler(link, index);
                } catch (const std::exception&) {
                    // A client that went away mid-exchange is what several tests provoke.
                }
                // Out of the set before the descriptor is closed and its number can be reused:
                // the destructor shuts down only descriptors of the set, under the lock.
                {
                    std::lock_guard<std::mutex> lock(m_openMutex);
                    m_open.erase(fd);
                }
                ::close(fd);
            });
        }
        for (std::thread& worker : workers) {
            worker.join();
        }
    });
}

TestPeer::~TestPeer() {
    m_stop = true;
    {
        std::lock_guard<std::mutex> lock(m_openMutex);
        for (const int fd : m_open) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
    m_thread.join();
    ::close(m_listener);
}

bool readRawFrame(PeerLink& link, Bytes& payload) {
    const auto fill = [&link](unsigned char* buffer, std::size_t size) {
        std::size_t done = 0;
        while (done < size) {
            const std::size_t got = link.receive(buffer + done, size - done);
            if (got == 0) {
                return done;
            }
            done += got;
        }
        return done;
    };
    unsigned char header[4];
    const std::size_t got = fill(header, 4);
    if (got == 0) {
        return false;
    }
    if (got == 4) {
        payload.assign((std::size_t{header[0]} << 24) | (std::size_t{header[1]} << 16) |
                           (std::size_t{header[2]} << 8) | std::size_t{header[3]},
                       0);
    }
    if (got != 4 || fill(payload.data(), payload.size()) != payload.size()) {
        throw std::runtime_error("test peer: stream ended");
    }
    return true;
}

Bytes frameOf(const Bytes& payload) {
    Bytes frame;
    for (const int shift : {24, 16, 8, 0}) {
        frame.push_back(static_cast<unsigned char>(payload.size() >> shift));
    }
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

void writeRaw(int fd, const Bytes& bytes) {
    if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("test peer: send failed");
    }
}

void writeRaw(PeerLink& link, const Bytes& bytes) {
    link.send({bytes});
}

void writeRawFrame(PeerLink& link, const Bytes& payload) {
    link.send({frameOf(payload)});
}

void waitForClose(PeerLink& link, const TestPeer& peer) {
    unsigned char byte;
    while (!peer.stopping()) {
        pollfd entry{link.fd(), POLLIN, 0};
        if (::poll(&entry, 1, 50) > 0 && link.receive(&byte, 1) == 0) {
            return;
        }
    }
}

void Signal::raise() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_isRaised = true;
    }
    m_raised.notify_all();
}

void Signal::wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_raised.wait_for(lock, std::chrono::seconds(10), [this] { return m_isRaised; })) {
        throw std::runtime_error("no signal within 10 s");
    }
}

void expectEachCommandGetsItsOwnReply(TestPeer::Kind kind, const Exchange& exchange) {
    const Bytes unasked = frameOf(makeMessage(2, 0, "unasked"));
    const struct {
        const char* name;
        bool tlsOnly;
        // Answers the first request; replyRead is raised once the client has read that reply.
        std::function<void(PeerLink& link, const Bytes& request, Signal& replyRead)> act;
        int connections;
    } rows[] = {
        {"nothing more", false,
         [](PeerLink& link, const Bytes& request, Signal&) { writeRawFrame(link, request); }, 1},
        {"a frame nobody asked for, once the reply was read", false,
         [&unasked](PeerLink& link, const Bytes& request, Signal& replyRead) {
             writeRawFrame(link, request);
             replyRead.wait();
             link.send({unasked});
         },
         2},
        {"a frame nobody asked for right behind the reply", false,
         [&unasked](PeerLink& link, const Bytes& request, Signal&) {
             link.send({frameOf(request), unasked});
         },
         2},
        {"a hang-up", false,
         [](PeerLink& link, const Bytes& request, Signal& replyRead) {
             writeRawFrame(link, request);
             replyRead.wait();
             link.hangUp();
         },
         2},
        {"a session ticket", true,
         [](PeerLink& link, const Bytes& request, Signal& replyRead) {
             writeRawFrame(link, request);
             replyRead.wait();
             link.sendSessionTicket();
         },
         1},
        {"a key update", true,
         [](PeerLink& link, const Bytes& request, Signal& replyRead) {
             writeRawFrame(link, request);
             replyRead.wait();
             link.sendKeyUpdate();
         },
         1},
    };
    for (const auto& row : rows) {
        if (row.tlsOnly && kind != TestPeer::Kind::Tls) {
            continue;
        }
        SCOPED_TRACE(std::string(kind == TestPeer::Kind::Tls ? "TLS: " : "TCP: ") + row.name);
        Signal replyRead;
        Signal done;
        std::atomic<int> requests{0};
        TestPeer peer(
            [&](PeerLink& link, int index) {
                Bytes request;
                for (int round = 0; readRawFrame(link, request); ++round) {
                    ++requests;
                    if (index == 0 && round == 0) {
                        row.act(link, request, replyRead);
                        link.waitUntilDelivered();
                        done.raise();
                    } else {
                        writeRawFrame(link, request);
                    }
                }
            },
            kind);
        const Bytes first = makeMessage(2, 0, "first");
        const Bytes second = makeMessage(2, 0, "second");
        EXPECT_EQ(payloadOf(exchange(peer.port(), first)), payloadOf(first));
        replyRead.raise();
        done.wait();
        EXPECT_EQ(payloadOf(exchange(peer.port(), second)), payloadOf(second));
        EXPECT_EQ(requests, 2);
        EXPECT_EQ(peer.connections(), row.connections);
    }
}

std::string ServerProcess::executable() {
    return std::string(OSTRELINK_STAGE_DIR) + "/bin/ostrelink-server";
}

ServerProcess::ServerProcess(const std::vector<std::string>& arguments) {
    static std::atomic<int> servers{0};
    ChildProcess::Options options;
    options.captureStdout = true;
    options.errorFile = m_errorFile = "/tmp/ostrelink-server-" + std::to_string(::getpid()) + "-" +
                                      std::to_string(servers++) + ".err";
    m_child = std::make_unique<ChildProcess>(executable(), arguments, options);
    std::string line;
    while (line.rfind("listening on ", 0) != 0) {
        line = m_child->readLine(30000);  // throws if the server ends first
    }
    m_port = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
}

ServerProcess::~ServerProcess() {
    m_child.reset();
    std::remove(m_errorFile.c_str());
}

std::string ServerProcess::err() const {
    std::ifstream file(m_errorFile);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

long ServerProcess::residentKiB() const {
    std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
    std::string key;
    long value = -1;
    while (status >> key && !(key == "VmRSS:" && status >> value)) {
    }
    return value;
}

ClientLibrary::ClientLibrary(const std::string& name) : m_library(HostLibrary::stagedPath(name)) {}

ClientLibrary& ClientLibrary::tcp() {
    static ClientLibrary library("OstrelinkTcpClient");
    return library;
}

ClientLibrary& ClientLibrary::tls() {
    static ClientLibrary library("OstrelinkTcpTlsClient");
    return library;
}

std::unique_ptr<ITransport> ClientLibrary::connect(const std::string& host,
                                                   unsigned short port) const {
    std::unique_ptr<ITransport> transport(
        m_library.get<Ostrelink::Native::Interfaces::CreateTransportChannelFn>(
            "CreateTransportChannel")(host, port));
    transport->Initialize(8, 2, 0);
    return transport;
}

int connectionsTo(unsigned short port) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        sockaddr_in peer{};
        socklen_t size = sizeof(peer);
        const int fd = std::stoi(entry.path().filename().string());
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
            peer.sin_family == AF_INET && peer.sin_addr.s_addr == htonl(INADDR_LOOPBACK) &&
            ntohs(peer.sin_port) == port) {
            ++count;
        }
    }
    return count;
}

int connectRaw(unsigned short port) {
    const int fd = loopbackSocket(port, true);
    const timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    return fd;
}

unsigned short unusedPort() {
    const int fd = loopbackSocket(0, false);
    const unsigned short port = portOf(fd);
    ::close(fd);
    return port;
}
