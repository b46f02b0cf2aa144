// The TCP client library as the network road needs it beyond what tests/hardening's hostile
// peers show through the library: each broken connection gives its own text and is replaced, a
// command that reached the server is never sent again, and a reply is read once. A refused port
// and replies per thread are in tests/transport (EndToEnd); the fuzzers cover the frame decoder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "NetworkTestSupport.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

// Connection 0 answers once, then takes a command and hangs up; connection 1 answers half a
// reply; connection 2 sends a frame nobody asked for right behind its reply, so it must not be
// used again; every later one answers once and hangs up, as an idle time-out does.
TEST(NetworkTcpClient, ABrokenConnectionIsReplacedButNoCommandIsSentTwice) {
    std::atomic<int> requests{0};
    TestPeer peer([&requests](int fd, int index) {
        Bytes request;
        for (int round = 0; readRawFrame(fd, request); ++round) {
            ++requests;
            if (index == 0 && round == 1) {
                return;
            }
            if (index == 1) {
                return writeRaw(fd, {0, 0, 0, 100, 1, 2, 3});
            }
            if (index == 2) {
                Bytes both{0, 0, 0, static_cast<unsigned char>(request.size())};
                both.insert(both.end(), request.begin(), request.end());
                both.insert(both.end(), {0, 0, 0, 1, 9});
                writeRaw(fd, both);
                continue;
            }
            writeRawFrame(fd, request);
            if (index > 1) {
                return;
            }
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
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(roundTrip(*client, message), message);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(requests, 5);
    EXPECT_EQ(peer.connections(), 4);
    unsigned char buffer[4];
    EXPECT_THAT(failureOf([&] { client->ReadResponse(buffer, 4); }), HasSubstr("no reply stored"));
}

}  // namespace
