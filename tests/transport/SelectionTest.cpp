// Channel selection by header: keys, TCP versus TLS, the current channel, and threads. The
// network channels here reach the recording client libraries of the "recording" installation.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "OutboundSupport.h"

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
    return createTransmitter(installedRuntime("recording"), RuntimeOperationMode::Calling);
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

TEST(Selection, HeaderBytesMakeTheKeyAndTheClientGetsHostAndPort) {
    ITransmitter* sender = transmitter();
    const unsigned char address[4] = {10, 0, 0, 7};
    Bytes message = networkMessage(tcp, address, 8080);
    EXPECT_EQ(message[7], 0x90);
    EXPECT_EQ(message[8], 0x1F);
    EXPECT_EQ(sendAndRead(sender, message, cpp), message);

    const unsigned char any[4] = {0, 0, 0, 0};
    Bytes unvalidated = networkMessage(tcp, any, 0);
    EXPECT_EQ(sendAndRead(sender, unvalidated, cpp), unvalidated);

    EXPECT_THAT(events(tcpClient),
                ElementsAre("create tcp 10.0.0.7:8080", "initialize tcp 10.0.0.7:8080 2,8,0",
                            "send tcp 10.0.0.7:8080", "create tcp 0.0.0.0:0",
                            "initialize tcp 0.0.0.0:0 2,8,0", "send tcp 0.0.0.0:0"));
    EXPECT_FALSE(clientLoaded(tlsClient));
}

TEST(Selection, OneKeyOneChannelTcpFirst) {
    ITransmitter* sender = transmitter();
    Bytes plain = networkMessage(tcp, local, 9000);
    Bytes secure = networkMessage(tls, local, 9000);
    EXPECT_EQ(sendAndRead(sender, plain, cpp), plain);
    EXPECT_EQ(sendAndRead(sender, secure, cpp), secure);
    EXPECT_THAT(events(tcpClient),
                ElementsAre("create tcp 127.0.0.1:9000", "initialize tcp 127.0.0.1:9000 2,8,0",
                            "send tcp 127.0.0.1:9000", "send tcp 127.0.0.1:9000"));
    EXPECT_FALSE(clientLoaded(tlsClient));
}

TEST(Selection, OneKeyOneChannelTlsFirst) {
    ITransmitter* sender = transmitter();
    Bytes secure = networkMessage(tls, local, 9000);
    Bytes plain = networkMessage(tcp, local, 9000);
    EXPECT_EQ(sendAndRead(sender, secure, cpp), secure);
    EXPECT_EQ(sendAndRead(sender, plain, cpp), plain);
    EXPECT_THAT(events(tlsClient),
                ElementsAre("create tls 127.0.0.1:9000", "initialize tls 127.0.0.1:9000 2,8,0",
                            "send tls 127.0.0.1:9000", "send tls 127.0.0.1:9000"));
    EXPECT_FALSE(clientLoaded(tcpClient));
}

TEST(Selection, DifferentPortsMakeTwoClientObjects) {
    ITransmitter* sender = transmitter();
    Bytes first = networkMessage(tcp, local, 8080);
    Bytes second = networkMessage(tcp, local, 8081);
    EXPECT_EQ(sendAndRead(sender, first, cpp), first);
    EXPECT_EQ(sendAndRead(sender, second, cpp), second);
    EXPECT_EQ(sendAndRead(sender, first, cpp), first);
    EXPECT_THAT(events(tcpClient),
                ElementsAre("create tcp 127.0.0.1:8080", "initialize tcp 127.0.0.1:8080 2,8,0",
                            "send tcp 127.0.0.1:8080", "create tcp 127.0.0.1:8081",
                            "initialize tcp 127.0.0.1:8081 2,8,0", "send tcp 127.0.0.1:8081",
                            "send tcp 127.0.0.1:8080"));
}

// The client object hears the runtimes of the message that made it, and never again.
TEST(Selection, ClientObjectIsInitializedOnceWithTheFirstMessagesRuntimes) {
    ITransmitter* sender = transmitter();
    for (unsigned char target :
         {cpp, static_cast<unsigned char>(5), static_cast<unsigned char>(3)}) {
        Bytes message = routedMessage(target, jvm, tcp, "x", local, 7000);
        message[1] = static_cast<unsigned char>(target + 1);
        EXPECT_EQ(sendAndRead(sender, message, target), message);
    }
    EXPECT_THAT(events(tcpClient),
                ElementsAre("create tcp 127.0.0.1:7000", "initialize tcp 127.0.0.1:7000 2,8,9",
                            "send tcp 127.0.0.1:7000", "send tcp 127.0.0.1:7000",
                            "send tcp 127.0.0.1:7000"));
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
    EXPECT_EQ(sendAndRead(sender, exact, cpp), exact);
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
    EXPECT_EQ(reply, message);
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
    EXPECT_EQ(reply, message);
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
    ITransmitter* sender = transmitter();
    Bytes message = networkMessage(tcp, local, 1);
    EXPECT_EQ(
        failureOf([&] { sender->SendCommand(message.data(), static_cast<int>(message.size())); }),
        "recording client: connection refused");
    EXPECT_EQ(sendAndRead(sender, message, cpp), message);
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
                try {
                    const int length =
                        sender->SendCommand(message.data(), static_cast<int>(message.size()));
                    Bytes reply(static_cast<std::size_t>(length), cpp);
                    sender->ReadResponse(reply.data(), length);
                    if (reply != message) {
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
