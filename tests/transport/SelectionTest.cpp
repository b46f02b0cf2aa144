// Channel selection by header: keys, TCP versus TLS, the current channel, and threads. The
// network channels here reach the recording client libraries of the "recording" installation.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "TransportSupport.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::ITransmitter;
using Ostrelink::Native::Interfaces::ITransport;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr unsigned char inMemory = 0;
constexpr unsigned char tcp = 1;
constexpr unsigned char tls = 2;
constexpr unsigned char cpp = 8;
constexpr unsigned char jvm = 2;
constexpr unsigned char local[4] = {127, 0, 0, 1};

const char* tcpClient = "libOstrelinkTcpClient.so";
const char* tlsClient = "libOstrelinkTcpTlsClient.so";

ITransmitter* transmitter() {
    return transmitterOf("recording");
}

bool clientLoaded(const char* file) {
    void* handle = dlopen(installedFile("recording", file).c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

// What a recording client library has been asked so far; nothing if it isn't loaded.
std::vector<std::string> events(const char* file) {
    std::vector<std::string> recorded;
    void* handle = dlopen(installedFile("recording", file).c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        return recorded;
    }
    using RecordedFn = void (*)(std::vector<std::string>*);
    reinterpret_cast<RecordedFn>(dlsym(handle, "RecordedClientEvents"))(&recorded);
    dlclose(handle);
    return recorded;
}

Bytes networkMessage(unsigned char connectionType, const unsigned char (&address)[4],
                     unsigned short port, const std::string& payload = "ping") {
    return routedMessage(cpp, jvm, connectionType, payload, address, port);
}

// A recording client's reply: the message, then the kind, address and port of its channel.
Bytes served(Bytes message, const std::string& channel) {
    message.insert(message.end(), channel.begin(), channel.end());
    return message;
}

// The first message to an address and port makes the channel of that key: its connection type
// picks TCP or TLS, and its runtimes and version go to the client's Initialize, once. Later
// messages to the key use that channel whatever their type.
TEST(Selection, TheFirstMessageToAKeyMakesItsChannel) {
    ITransmitter* sender = transmitter();
    const struct {
        unsigned char type;
        unsigned char address[4];
        unsigned short port;
        unsigned char target;
        const char* channel;
    } sends[] = {
        {tcp, {10, 0, 0, 7}, 8080, cpp, "tcp 10.0.0.7:8080"},
        {tls, {10, 0, 0, 7}, 8080, cpp, "tcp 10.0.0.7:8080"},
        {tcp, {0, 0, 0, 0}, 0, cpp, "tcp 0.0.0.0:0"},
        {tls, {127, 0, 0, 1}, 9000, 5, "tls 127.0.0.1:9000"},
        {tcp, {127, 0, 0, 1}, 9000, 3, "tls 127.0.0.1:9000"},
        {tcp, {127, 0, 0, 1}, 9001, cpp, "tcp 127.0.0.1:9001"},
        {tcp, {10, 0, 0, 7}, 8080, cpp, "tcp 10.0.0.7:8080"},
    };
    for (const auto& send : sends) {
        Bytes message = routedMessage(send.target, jvm, send.type, "ping", send.address, send.port);
        message[1] = send.target == 5 ? 4 : 0;
        EXPECT_EQ(sendAndRead(sender, message, send.target), served(message, send.channel));
    }
    EXPECT_THAT(
        events(tcpClient),
        ElementsAre("create tcp 10.0.0.7:8080", "initialize tcp 10.0.0.7:8080 2,8,0",
                    "send tcp 10.0.0.7:8080", "send tcp 10.0.0.7:8080", "create tcp 0.0.0.0:0",
                    "initialize tcp 0.0.0.0:0 2,8,0", "send tcp 0.0.0.0:0",
                    "create tcp 127.0.0.1:9001", "initialize tcp 127.0.0.1:9001 2,8,0",
                    "send tcp 127.0.0.1:9001", "send tcp 10.0.0.7:8080"));
    EXPECT_THAT(events(tlsClient),
                ElementsAre("create tls 127.0.0.1:9000", "initialize tls 127.0.0.1:9000 2,5,4",
                            "send tls 127.0.0.1:9000", "send tls 127.0.0.1:9000"));
}

TEST(Selection, TheTlsClientIsLoadedOnlyWhenATlsChannelIsMade) {
    ITransmitter* sender = transmitter();
    Bytes message = networkMessage(tcp, local, 9000);
    sendAndRead(sender, message, cpp);
    EXPECT_TRUE(clientLoaded(tcpClient));
    EXPECT_FALSE(clientLoaded(tlsClient));
}

// Bytes that end where an unreadable page begins: a read past their end faults.
class PageEdge {
public:
    explicit PageEdge(const Bytes& bytes)
        : m_page(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
        m_base = static_cast<unsigned char*>(
            mmap(nullptr, 2 * m_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_NE(m_base, MAP_FAILED);
        EXPECT_EQ(mprotect(m_base + m_page, m_page, PROT_NONE), 0);
        m_bytes = m_base + m_page - bytes.size();
        std::copy(bytes.begin(), bytes.end(), m_bytes);
    }
    ~PageEdge() { munmap(m_base, 2 * m_page); }
    PageEdge(const PageEdge&) = delete;
    PageEdge& operator=(const PageEdge&) = delete;
    unsigned char* data() const { return m_bytes; }

private:
    std::size_t m_page;
    unsigned char* m_base;
    unsigned char* m_bytes;
};

TEST(Selection, ShortMessagesAndBuffersAreRefusedBeforeAnyByteIsRead) {
    ITransmitter* sender = transmitter();
    Bytes message = networkMessage(tcp, local, 9000);
    for (int length : {10, 0, -1}) {
        EXPECT_EQ(failureOf([&] { sender->SendCommand(message.data(), length); }),
                  "Message byte array length is less than 11");
    }
    // In memory, the read's first byte picks the runtime.
    sendAndRead(sender, routedMessage(cpp, jvm, inMemory), cpp);
    const PageEdge five(Bytes(message.begin(), message.begin() + 5));
    const PageEdge none(Bytes{});
    const std::string noHeader =
        "Ostrelink Native Exception: Exception code 034. \nMessage is null or shorter than its "
        "11-byte header";
    const std::string noBuffer =
        "Ostrelink Native Exception: Exception code 033. \nResponse buffer is null or empty: its "
        "first byte names the runtime to read from";
    const std::pair<std::function<void()>, std::string> refused[] = {
        {[&] { sender->SendCommand(nullptr, 11); }, noHeader},
        {[&] { sender->DeployRuntime(nullptr, 11, "", 0); }, noHeader},
        {[&] { sender->DeployRuntime(five.data(), 5, "", 0); }, noHeader},
        {[&] { sender->ReadResponse(nullptr, 1); }, noBuffer},
        {[&] { sender->ReadResponse(none.data(), 0); }, noBuffer},
    };
    for (const auto& [call, text] : refused) {
        EXPECT_EQ(failureOf(call), text);
    }
    EXPECT_THAT(events(tcpClient), IsEmpty());

    Bytes exact(message.begin(), message.begin() + 11);
    EXPECT_EQ(sendAndRead(sender, exact, cpp), served(exact, "tcp 127.0.0.1:9000"));
}

TEST(Selection, UnknownConnectionTypeThrows023AndKeepsTheCurrentChannel) {
    ITransmitter* sender = transmitter();
    Bytes message = networkMessage(tcp, local, 9000);
    const int length = sender->SendCommand(message.data(), static_cast<int>(message.size()));

    Bytes unknown = networkMessage(3, local, 9001);
    EXPECT_EQ(
        failureOf([&] { sender->SendCommand(unknown.data(), static_cast<int>(unknown.size())); }),
        "Ostrelink Native Exception: Exception code 023.");

    Bytes reply(static_cast<std::size_t>(length), 0);
    EXPECT_EQ(sender->ReadResponse(reply.data(), length), 0);
    EXPECT_EQ(reply, served(message, "tcp 127.0.0.1:9000"));
    EXPECT_THAT(events(tcpClient), testing::Not(testing::Contains(HasSubstr("9001"))));
}

TEST(Selection, ReadResponseBeforeAnySelectionIsRefused) {
    ITransmitter* sender = transmitter();
    Bytes buffer(20, cpp);
    EXPECT_EQ(failureOf([&] { sender->ReadResponse(buffer.data(), 20); }),
              "Ostrelink Native Exception: Exception code 029. \nNo transport channel selected: "
              "send a command before reading its response");
}

TEST(Selection, SetEmbeddedRuntimeSwitchesToTheInMemoryChannel) {
    ITransmitter* sender = transmitter();
    Bytes message = networkMessage(tcp, local, 9000);
    sender->SendCommand(message.data(), static_cast<int>(message.size()));

    EXPECT_EQ(sender->SetEmbeddedRuntime(jvm, cpp, 4, "/opt/cpp"), 1);
    // The read now goes to the Cpp runtime in memory, which holds no reply for this thread.
    Bytes buffer(message.size(), cpp);
    EXPECT_THAT(
        failureOf([&] { sender->ReadResponse(buffer.data(), static_cast<int>(buffer.size())); }),
        HasSubstr("Cpp runtime: no response stored"));

    const std::string expected = std::string(1, '\x04') + "/opt/cpp";
    EXPECT_EQ(payloadOf(sendAndRead(sender, routedMessage(cpp, jvm, inMemory, "embedded"), cpp)),
              Bytes(expected.begin(), expected.end()));
}

class InstalledChannel : public ITransport {
public:
    explicit InstalledChannel(std::atomic<bool>& destroyed) : m_destroyed(destroyed) {}
    ~InstalledChannel() override { m_destroyed = true; }
    InstalledChannel(const InstalledChannel&) = delete;
    InstalledChannel& operator=(const InstalledChannel&) = delete;
    int Initialize(unsigned char, unsigned char, unsigned char) override { return 0; }
    int SendCommand(unsigned char*, int) override { return 0; }
    int ReadResponse(unsigned char*, int) override { return 77; }
    unsigned char SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char,
                                     std::string) override {
        return 0;
    }
    unsigned char DeployRuntime(unsigned char*, int, std::string, unsigned char) override {
        return 0;
    }

private:
    std::atomic<bool>& m_destroyed;
};

// An installed channel serves reads until the next message selects by its header, and goes then.
TEST(Selection, SetTransportChannelServesUntilTheNextSelection) {
    ITransmitter* sender = transmitter();
    std::atomic<bool> destroyed{false};
    sender->SetTransportChannel(new InstalledChannel(destroyed));
    Bytes buffer(11, cpp);
    EXPECT_EQ(sender->ReadResponse(buffer.data(), 11), 77);
    EXPECT_FALSE(destroyed);

    Bytes message = networkMessage(tcp, local, 9000);
    const int length = sender->SendCommand(message.data(), static_cast<int>(message.size()));
    EXPECT_TRUE(destroyed);
    Bytes reply(static_cast<std::size_t>(length), 0);
    EXPECT_EQ(sender->ReadResponse(reply.data(), length), 0);
    EXPECT_EQ(reply, served(message, "tcp 127.0.0.1:9000"));
}

TEST(Selection, NetworkDeployAndEmbeddedRuntimeSendNothing) {
    ITransmitter* sender = transmitter();
    Bytes message = networkMessage(tcp, local, 9000);
    EXPECT_EQ(sender->DeployRuntime(message.data(), static_cast<int>(message.size()), "text", 1),
              0);
    EXPECT_THAT(events(tcpClient),
                ElementsAre("create tcp 127.0.0.1:9000", "initialize tcp 127.0.0.1:9000 2,8,0"));
}

// The client's Initialize fails once; the object stays, and later messages use it as it is.
TEST(Selection, ClientInitializeFailureReachesTheSenderOnce) {
    setenv("RECORDING_CLIENT_REFUSED_PORT", "1", 1);
    ITransmitter* sender = transmitter();
    Bytes message = networkMessage(tcp, local, 1);
    EXPECT_EQ(
        failureOf([&] { sender->SendCommand(message.data(), static_cast<int>(message.size())); }),
        "recording client: connection refused");
    EXPECT_EQ(sendAndRead(sender, message, cpp), served(message, "tcp 127.0.0.1:1"));
    EXPECT_THAT(events(tcpClient),
                ElementsAre("create tcp 127.0.0.1:1", "initialize tcp 127.0.0.1:1 2,8,0",
                            "send tcp 127.0.0.1:1"));
}

// Threads send at once over the network and in memory; each reads the reply to its own message,
// from the channel that served it, whatever the other threads selected meanwhile.
TEST(Selection, ThreadsSendingAtOnceEachReadTheirOwnReply) {
    ITransmitter* sender = transmitter();
    constexpr int threadCount = 6;
    constexpr int rounds = 300;
    std::atomic<int> wrong{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < rounds; ++round) {
                const std::string payload = std::to_string(i) + "-" + std::to_string(round);
                Bytes message = i % 3 == 0   ? routedMessage(cpp, jvm, inMemory, payload)
                                : i % 3 == 1 ? networkMessage(tcp, local, 9000, payload)
                                             : networkMessage(tls, local, 9443, payload);
                const Bytes expected = i % 3 == 0   ? message
                                       : i % 3 == 1 ? served(message, "tcp 127.0.0.1:9000")
                                                    : served(message, "tls 127.0.0.1:9443");
                try {
                    if (sendAndRead(sender, message, cpp) != expected) {
                        ++wrong;
                    }
                } catch (const std::exception&) {
                    ++failed;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(failed, 0);
}

}  // namespace
