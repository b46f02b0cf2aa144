// The TCP client library as the network road uses it: replies per thread, read once, and the
// texts and reconnections of a peer that breaks. The fuzzers cover the frame decoder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "NetworkTestSupport.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

std::string endpoint(unsigned short port) {
    return "Ostrelink TCP client 127.0.0.1:" + std::to_string(port) + ": ";
}

// Echoes after a delay that varies, so that replies of different threads overtake each other.
void echoWithJitter(int fd, int index) {
    Bytes request;
    for (int round = 0; readRawFrame(fd, request); ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds((round * 7 + index) % 5));
        writeRawFrame(fd, request);
    }
}

// Each thread sends its own payloads, of its own length, so a reply read by the wrong thread
// shows; a reply is read once.
TEST(NetworkTcpClient, EachThreadReadsExactlyItsOwnRepliesOnce) {
    TestPeer peer(echoWithJitter);
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    std::vector<int> mismatches(6, 0);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < mismatches.size(); ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 40; ++i) {
                const Bytes message = makeMessage(2, 0,
                                                  "thread " + std::to_string(t) + " " +
                                                      std::to_string(i) + std::string(t * 3, '.'));
                mismatches[t] += roundTrip(*client, message) != message ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches, std::vector<int>(6, 0));
    EXPECT_LE(peer.connections(), 12);
    unsigned char buffer[4];
    EXPECT_THAT(failureOf([&] { client->ReadResponse(buffer, 4); }),
                AllOf(StartsWith(endpoint(peer.port())), HasSubstr("no reply stored")));
}

struct BrokenPeer {
    const char* name;
    bool silent;  // else answer is written after the request and the connection closes
    Bytes answer;
    const char* text;
};

void PrintTo(const BrokenPeer& peer, std::ostream* out) {
    *out << peer.name;
}

class NetworkTcpClientBrokenPeer : public testing::TestWithParam<BrokenPeer> {};

// The failure names the endpoint and the cause; the next command connects again and works.
TEST_P(NetworkTcpClientBrokenPeer, GivesItsTextAndTheNextCommandReconnects) {
    ::setenv("OSTRELINK_NET_READ_TIMEOUT_MS", "300", 1);
    TestPeer peer([&](int fd, int index) {
        Bytes request;
        while (readRawFrame(fd, request)) {
            if (index > 0) {
                writeRawFrame(fd, request);
            } else if (GetParam().silent) {
                return waitForClose(fd, peer);
            } else {
                return writeRaw(fd, GetParam().answer);
            }
        }
    });
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    const Bytes message = makeMessage(2, 0, "again");
    EXPECT_THAT(failureOf([&] { roundTrip(*client, message); }),
                AllOf(StartsWith(endpoint(peer.port())), HasSubstr(GetParam().text)));
    EXPECT_EQ(roundTrip(*client, message), message);
}

INSTANTIATE_TEST_SUITE_P(
    Peers, NetworkTcpClientBrokenPeer,
    testing::Values(BrokenPeer{"Silent", true, {}, "no reply within 300 ms"},
                    BrokenPeer{"MidReply",
                               false,
                               {0, 0, 0, 100, 1, 2, 3},
                               "closed by the server in the middle of the reply"},
                    BrokenPeer{"HalfAHeader", false, {0, 0}, "in the middle of the reply"},
                    BrokenPeer{"NoReply", false, {}, "closed by the server before the reply"},
                    BrokenPeer{"Oversize",
                               false,
                               {0x7F, 0xFF, 0xFF, 0xFF},
                               "2147483647 bytes exceeds the limit of 67108864 bytes"}),
    [](const testing::TestParamInfo<BrokenPeer>& info) { return std::string(info.param.name); });

TEST(NetworkTcpClient, RefusedPortNamesHostPortAndCause) {
    const unsigned short port = unusedPort();
    auto client = ClientLibrary::tcp().connect("127.0.0.1", port);
    EXPECT_THAT(failureOf([&] { roundTrip(*client, healthCheckMessage()); }),
                AllOf(StartsWith(endpoint(port)), HasSubstr("cannot connect"),
                      HasSubstr("Connection refused")));
}

// A server that hangs up after its reply, as an idle time-out does, is replaced; one that takes
// a command and hangs up is not sent it again.
TEST(NetworkTcpClient, AClosedConnectionIsReplacedButNoCommandIsSentTwice) {
    std::atomic<int> requests{0};
    TestPeer peer([&requests](int fd, int index) {
        Bytes request;
        if (readRawFrame(fd, request)) {
            ++requests;
            writeRawFrame(fd, request);
        }
        if (index == 0 && readRawFrame(fd, request)) {
            ++requests;
        }
    });
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    const Bytes message = makeMessage(2, 0, "once");
    EXPECT_EQ(roundTrip(*client, message), message);
    EXPECT_THAT(failureOf([&] { roundTrip(*client, message); }),
                HasSubstr("before the reply (the command was sent, so it is not sent again)"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(roundTrip(*client, message), message);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(requests, 4);
    EXPECT_EQ(peer.connections(), 3);
}

}  // namespace
