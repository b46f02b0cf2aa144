// Channel selection by header: keys, TCP versus TLS, the current channel, and threads. The
// network channels here reach the recording client libraries of the "recording" installation.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TransportSupport.h"

using Ostrelink::Native::Interfaces::ITransmitter;
using testing::ElementsAre;

namespace {

constexpr unsigned char tcp = 1;
constexpr unsigned char tls = 2;
const char* tcpClient = "libOstrelinkTcpClient.so";
const char* tlsClient = "libOstrelinkTcpTlsClient.so";

// What a recording client library has been asked so far, or that it isn't loaded.
std::vector<std::string> events(const char* file) {
    void* handle = dlopen(installedFile("recording", file).c_str(), RTLD_NOW | RTLD_NOLOAD);
    std::vector<std::string> recorded{"not loaded"};
    if (handle != nullptr) {
        reinterpret_cast<void (*)(std::vector<std::string>*)>(
            dlsym(handle, "RecordedClientEvents"))(&recorded);
        dlclose(handle);
    }
    return recorded;
}

Bytes networkMessage(unsigned char connectionType, unsigned short port,
                     const std::string& payload = "ping") {
    return routedMessage(cpp, jvm, connectionType, payload, local, port);
}

// A recording client's reply: the message, then the kind, address and port of its channel.
Bytes served(Bytes message, const std::string& channel) {
    message.insert(message.end(), channel.begin(), channel.end());
    return message;
}

// The first message to an address and port makes the channel of that key: its connection type
// picks TCP or TLS, and its runtimes and version go to the client's Initialize, once. A message
// marked TLS never rides a plain channel: it gets a TLS one of its own beside it. A TCP message
// takes the plain channel, or the TLS one if the address has only that.
TEST(Selection, TheFirstMessageToAKeyMakesItsChannel) {
    const struct {
        unsigned char type;
        unsigned char address[4];
        unsigned short port;
        unsigned char target;
        const char* channel;
    } sends[] = {
        {tcp, {10, 0, 0, 7}, 8080, cpp, "tcp 10.0.0.7:8080"},
        {tls, {10, 0, 0, 7}, 8080, cpp, "tls 10.0.0.7:8080"},
        {tls, {127, 0, 0, 1}, 9000, 5, "tls 127.0.0.1:9000"},
        {tcp, {127, 0, 0, 1}, 9000, 3, "tls 127.0.0.1:9000"},
        {tcp, {127, 0, 0, 1}, 9001, cpp, "tcp 127.0.0.1:9001"},
        {tcp, {10, 0, 0, 7}, 8080, cpp, "tcp 10.0.0.7:8080"},
        {tls, {10, 0, 0, 7}, 8080, cpp, "tls 10.0.0.7:8080"},
    };
    for (const auto& send : sends) {
        Bytes message = routedMessage(send.target, jvm, send.type, "ping", send.address, send.port);
        message[1] = send.target == 5 ? 4 : 0;
        EXPECT_EQ(sendAndRead(transmitterOf("recording"), message, send.target),
                  served(message, send.channel));
    }
    EXPECT_THAT(events(tcpClient),
                ElementsAre("create tcp 10.0.0.7:8080", "initialize tcp 10.0.0.7:8080 2,8,0",
                            "send tcp 10.0.0.7:8080", "create tcp 127.0.0.1:9001",
                            "initialize tcp 127.0.0.1:9001 2,8,0", "send tcp 127.0.0.1:9001",
                            "send tcp 10.0.0.7:8080"));
    EXPECT_THAT(events(tlsClient),
                ElementsAre("create tls 10.0.0.7:8080", "initialize tls 10.0.0.7:8080 2,8,0",
                            "send tls 10.0.0.7:8080", "create tls 127.0.0.1:9000",
                            "initialize tls 127.0.0.1:9000 2,5,4", "send tls 127.0.0.1:9000",
                            "send tls 127.0.0.1:9000", "send tls 10.0.0.7:8080"));
}

// Before any selection a read has no channel. Short messages and empty buffers are refused and
// reach no client, and so is an unknown connection type: the current channel stays. A client's
// Initialize that fails reaches the sender once; the object stays for later messages. A network
// DeployRuntime sends nothing.
TEST(Selection, RefusalsAndFailuresLeaveTheCurrentChannel) {
    ITransmitter* sender = transmitterOf("recording");
    Bytes message = networkMessage(tcp, 9000);
    EXPECT_EQ(failureOf([&] { sender->ReadResponse(message.data(), 11); }),
              "Ostrelink Native Exception: Exception code 029. \nNo transport channel selected: "
              "send a command before reading its response");
    sendAndRead(sender, routedMessage(cpp, jvm, 0), cpp);
    const std::pair<std::function<void()>, std::string> refused[] = {
        {[&] { sender->SendCommand(nullptr, 11); },
         "034. \nMessage is null or shorter than its 11-byte header"},
        {[&] { sender->DeployRuntime(message.data(), 5, "", 0); },
         "034. \nMessage is null or shorter than its 11-byte header"},
        {[&] { sender->ReadResponse(message.data(), 0); },
         "033. \nResponse buffer is null or empty: its first byte names the runtime to read from"},
    };
    for (const auto& [call, text] : refused) {
        EXPECT_EQ(failureOf(call), "Ostrelink Native Exception: Exception code " + text);
    }
    EXPECT_THAT(events(tcpClient), ElementsAre("not loaded"));

    EXPECT_EQ(sender->DeployRuntime(message.data(), 11, "text", 1), 0);
    const int length = sender->SendCommand(message.data(), 11);
    Bytes unknown = networkMessage(3, 9001);
    EXPECT_EQ(failureOf([&] { sender->SendCommand(unknown.data(), 11); }),
              "Ostrelink Native Exception: Exception code 023.");
    Bytes reply(static_cast<std::size_t>(length), cpp);
    EXPECT_EQ(sender->ReadResponse(reply.data(), length), 0);
    EXPECT_EQ(reply, served(Bytes(message.begin(), message.begin() + 11), "tcp 127.0.0.1:9000"));

    setenv("RECORDING_CLIENT_REFUSED_PORT", "1", 1);
    Bytes refusedPort = networkMessage(tcp, 1);
    EXPECT_EQ(failureOf([&] { sendAndRead(sender, refusedPort); }),
              "recording client: connection refused");
    EXPECT_EQ(sendAndRead(sender, refusedPort, cpp), served(refusedPort, "tcp 127.0.0.1:1"));
    EXPECT_THAT(events(tcpClient),
                ElementsAre("create tcp 127.0.0.1:9000", "initialize tcp 127.0.0.1:9000 2,8,0",
                            "send tcp 127.0.0.1:9000", "create tcp 127.0.0.1:1",
                            "initialize tcp 127.0.0.1:1 2,8,0", "send tcp 127.0.0.1:1"));
    EXPECT_THAT(events(tlsClient), ElementsAre("not loaded"));
}

// An installed channel serves reads until the next message selects by its header, and goes then.
// SetEmbeddedRuntime switches to the in-memory channel, where the Cpp runtime holds no reply for
// this thread, and passes the version and path on.
TEST(Selection, InstalledAndEmbeddedChannels) {
    ITransmitter* sender = transmitterOf("recording");
    HostLibrary client(installedFile("recording", tlsClient));
    using CreateFn = Ostrelink::Native::Interfaces::ITransport* (*)(std::string, unsigned short);
    sender->SetTransportChannel(client.get<CreateFn>("CreateTransportChannel")("installed", 1));
    Bytes message = networkMessage(tcp, 9000);
    EXPECT_EQ(failureOf([&] { sender->ReadResponse(message.data(), 11); }),
              "recording client: no reply for this thread");
    EXPECT_THAT(events(tlsClient), ElementsAre("create tls installed:1"));
    sender->SendCommand(message.data(), static_cast<int>(message.size()));
    EXPECT_THAT(events(tlsClient),
                ElementsAre("create tls installed:1", "destroy tls installed:1"));

    EXPECT_EQ(sender->SetEmbeddedRuntime(jvm, cpp, 4, "/opt/cpp"), 1);
    EXPECT_THAT(failureOf([&] { sender->ReadResponse(message.data(), 11); }),
                testing::HasSubstr("Cpp runtime: no response stored"));
    EXPECT_EQ(payloadOf(sendAndRead(sender, routedMessage(cpp, jvm, 0, "embedded"), cpp)),
              (Bytes{4, '/', 'o', 'p', 't', '/', 'c', 'p', 'p'}));
}

// Threads send at once over the network and in memory; each reads the reply to its own message,
// from the channel that served it, whatever the other threads selected meanwhile.
TEST(Selection, ThreadsSendingAtOnceEachReadTheirOwnReply) {
    EXPECT_EQ(wrongReplies(transmitterOf("recording"), 6, cpp,
                           [](int i, const std::string& payload) {
                               Bytes message =
                                   i % 3 == 0 ? routedMessage(cpp, jvm, 0, payload)
                                              : networkMessage(static_cast<unsigned char>(i % 3),
                                                               i % 3 == 1 ? 9000 : 9443, payload);
                               return std::pair{
                                   message, i % 3 == 0   ? message
                                            : i % 3 == 1 ? served(message, "tcp 127.0.0.1:9000")
                                                         : served(message, "tls 127.0.0.1:9443")};
                           }),
              0);
}

// Client libraries that misbehave or are missing: each failure leaves the channel in the
// transmitter's map, and the next message tries the library again.
TEST(NetworkFailures, EachMessageTriesTheClientLibraryAgain) {
    const auto reinstall = [](const std::string& code) {
        return "Ostrelink Native Exception: Exception code " + code +
               ". \nReinstall Ostrelink package";
    };
    const struct {
        const char* installation;
        unsigned char connectionType;
        std::string text;
    } failures[] = {
        {"ClientWithoutFactory", tcp, reinstall("011")},
        {"ClientNullFactory", tcp, reinstall("012")},
        {"ClientWithoutFactory", tls,
         "Ostrelink Native Exception: Exception code 001. \nCannot load: " +
             installedFile("ClientWithoutFactory", tlsClient) + ". \nError: File not found."},
    };
    for (int attempt = 0; attempt < 2; ++attempt) {
        for (const auto& row : failures) {
            Bytes message =
                networkMessage(row.connectionType, row.connectionType == tls ? 9443 : 9000);
            ITransmitter* sender = transmitterOf(row.installation);
            EXPECT_EQ(failureOf([&] { sendAndRead(sender, message); }), row.text);
        }
    }
    HostLibrary client(installedFile("ClientNullFactory", tcpClient));
    EXPECT_EQ(client.get<int (*)()>("ClientFactoryCalls")(), 2);
}

}  // namespace
