// The TCP and TLS client libraries as the network road needs them beyond what tests/hardening's
// hostile peers show through the library: each broken connection gives its own text and is
// replaced, a command that reached the server is never sent again, a pooled connection is checked
// each time it is taken, idle connections age out, and a reply is read once, by the thread that
// sent its command. A refused port is in tests/transport (EndToEnd); the fuzzers cover the frame
// decoder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "NetworkTestSupport.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

ClientLibrary& libraryOf(TestPeer::Kind kind) {
    return kind == TestPeer::Kind::Tls ? ClientLibrary::tls() : ClientLibrary::tcp();
}

// Connection 0 answers once, then takes a command and hangs up; connection 1 answers half a
// reply; the next one echoes.
TEST(NetworkTcpClient, ABrokenConnectionIsReplacedButNoCommandIsSentTwice) {
    std::atomic<int> requests{0};
    TestPeer peer([&requests](PeerLink& link, int index) {
        Bytes request;
        for (int round = 0; readRawFrame(link, request); ++round) {
            ++requests;
            if (index == 0 && round == 1) {
                return;
            }
            if (index == 1) {
                return writeRaw(link, {0, 0, 0, 100, 1, 2, 3});
            }
            writeRawFrame(link, request);
        }
    });
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    const std::string endpoint = "Ostrelink TCP client 127.0.0.1:" + std::to_string(peer.port());
    const Bytes message = makeMessage(2, 0, "once");
    const auto failure = [&] { return failureOf([&] { roundTrip(*client, message); }); };
    EXPECT_EQ(roundTrip(*client, message), message);
    EXPECT_THAT(failure(), StartsWith(endpoint + ": connection closed by the server before the "
                                                 "reply (the command was sent, so it is not sent "
                                                 "again)"));
    EXPECT_THAT(failure(), HasSubstr("closed by the server in the middle of the reply"));
    EXPECT_EQ(roundTrip(*client, message), message);
    EXPECT_EQ(requests, 4);
    EXPECT_EQ(peer.connections(), 3);
    unsigned char buffer[4];
    EXPECT_THAT(failureOf([&] { client->ReadResponse(buffer, 4); }), HasSubstr("no reply stored"));
}

TEST(NetworkClient, APooledConnectionIsCheckedEachTimeItIsTaken) {
    ::setenv("OSTRELINK_TLS_CA_FILE", TestCertificates().caCert.c_str(), 1);
    for (const TestPeer::Kind kind : {TestPeer::Kind::Tcp, TestPeer::Kind::Tls}) {
        std::unique_ptr<ITransport> client;
        unsigned short clientPort = 0;
        expectEachCommandGetsItsOwnReply(kind, [&](unsigned short port, const Bytes& message) {
            if (port != clientPort) {
                client = libraryOf(kind).connect("127.0.0.1", port);
                clientPort = port;
            }
            return roundTrip(*client, message);
        });
    }
}

// Idle connections beyond those in recent use are closed: a burst of commands at once leaves up
// to that many in the pool, and after a pause longer than the pool keeps them, the next command
// closes them and leaves one open.
TEST(NetworkTcpClient, IdleConnectionsAgeOutOfThePool) {
    ::setenv("OSTRELINK_NET_POOL_IDLE_MS", "50", 1);
    constexpr int burst = 8;
    std::atomic<int> arrived{0};
    Signal allArrived;
    // The first burst of requests is answered only once all of them are in, so that each has a
    // connection of its own.
    TestPeer peer([&](PeerLink& link, int) {
        Bytes request;
        while (readRawFrame(link, request)) {
            if (++arrived == burst) {
                allArrived.raise();
            }
            allArrived.wait();
            writeRawFrame(link, request);
        }
    });
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    const Bytes message = makeMessage(2, 0, "burst");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < burst; ++thread) {
        threads.emplace_back([&] { EXPECT_EQ(roundTrip(*client, message), message); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(roundTrip(*client, message), message);
    EXPECT_EQ(connectionsTo(peer.port()), 1);
}

// Sends a command while its thread ends, from a thread_local's destructor.
struct SendsAsItsThreadEnds {
    ITransport* client = nullptr;
    Bytes* reply = nullptr;
    ~SendsAsItsThreadEnds() {
        if (client != nullptr) {
            *reply = roundTrip(*client, makeMessage(2, 0, "at exit"));
        }
    }
};
thread_local SendsAsItsThreadEnds sendsAsItsThreadEnds;

// A reply belongs to the thread that sent its command and goes with it, so a new thread (which
// inherits the ended one's id) finds none. A client destroyed while a live thread holds a reply
// of it, and a command sent as a thread ends, after the client's own state of that thread was
// freed, neither crash nor leak (the sanitizer build runs this too).
TEST(NetworkTcpClient, AReplyBelongsToTheThreadThatSentItsCommand) {
    TestPeer peer([](PeerLink& link, int) {
        Bytes request;
        while (readRawFrame(link, request)) {
            writeRawFrame(link, request);
        }
    });
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    Bytes message = makeMessage(2, 0, "unread");
    std::thread([&] {
        client->SendCommand(message.data(), static_cast<int>(message.size()));
    }).join();
    std::thread([&] {
        unsigned char buffer[4];
        EXPECT_THAT(failureOf([&] { client->ReadResponse(buffer, 4); }),
                    HasSubstr("no reply stored for this thread"));
    }).join();

    auto doomed = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    Signal sent;
    Signal destroyed;
    std::thread holder([&] {
        doomed->SendCommand(message.data(), static_cast<int>(message.size()));
        sent.raise();
        destroyed.wait();
        EXPECT_EQ(roundTrip(*client, message), message);
    });
    sent.wait();
    doomed.reset();
    destroyed.raise();
    holder.join();

    Bytes atExit;
    std::thread([&] {
        sendsAsItsThreadEnds.client = client.get();
        sendsAsItsThreadEnds.reply = &atExit;
        EXPECT_EQ(roundTrip(*client, message), message);
    }).join();
    EXPECT_EQ(payloadOf(atExit), payloadOf(makeMessage(2, 0, "at exit")));
}

}  // namespace
