// One client object shared by many threads: every thread reads exactly its own replies.
#include <gtest/gtest.h>

#include <chrono>

#include "NetworkTestSupport.h"

namespace {

// Echoes after a delay that varies, so that replies of different threads overtake each other.
void echoWithJitter(int fd, int index) {
    Bytes request;
    int round = 0;
    while (readRawFrame(fd, request)) {
        std::this_thread::sleep_for(std::chrono::milliseconds((round++ * 7 + index) % 5));
        writeRawFrame(fd, request);
    }
}

}  // namespace

TEST(NetworkClientThreads, EachThreadReadsExactlyItsOwnReplies) {
    constexpr int threadCount = 6;
    constexpr int commandsPerThread = 40;
    TestPeer peer(echoWithJitter);
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    std::vector<int> mismatches(threadCount, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < commandsPerThread; ++i) {
                // Different lengths too, so a reply read by the wrong thread can't pass.
                const std::string text = "thread " + std::to_string(t) + " command " +
                                         std::to_string(i) +
                                         std::string(static_cast<std::size_t>(t * 3), '.');
                const Bytes message = makeMessage(2, 0, text);
                try {
                    if (roundTrip(*client, message) != message) {
                        ++mismatches[static_cast<std::size_t>(t)];
                    }
                } catch (const std::exception& error) {
                    ADD_FAILURE() << error.what();
                    ++mismatches[static_cast<std::size_t>(t)];
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches, std::vector<int>(threadCount, 0));
    // Idle connections are reused: far fewer connections than commands.
    EXPECT_LE(peer.connections(), threadCount * 2);
}

TEST(NetworkClientThreads, RepliesWaitForTheirOwnThreadWhileOthersSend) {
    TestPeer peer(echoWithJitter);
    auto client = ClientLibrary::tcp().connect("127.0.0.1", peer.port());
    Bytes mine = makeMessage(2, 0, "main thread");
    ASSERT_EQ(client->SendCommand(mine.data(), static_cast<int>(mine.size())),
              static_cast<int>(mine.size()));
    std::thread other([&] {
        const Bytes theirs = makeMessage(2, 0, "the other thread, longer");
        EXPECT_EQ(roundTrip(*client, theirs), theirs);
        unsigned char buffer[1];
        EXPECT_THROW(client->ReadResponse(buffer, 1), std::runtime_error);
    });
    other.join();
    Bytes reply(mine.size(), 0);
    client->ReadResponse(reply.data(), static_cast<int>(reply.size()));
    EXPECT_EQ(reply, mine);
}
