// The frame format, compiled in from the framing library that the client libraries and the
// server share: its failures are reached here directly, over a socket pair.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "ByteChannel.h"
#include "Frame.h"
#include "StreamError.h"
#include "common/Messages.h"

using namespace Ostrelink::Network;
using testing::HasSubstr;

namespace {

struct ChannelPair {
    std::unique_ptr<PlainChannel> left;
    std::unique_ptr<PlainChannel> right;
    ChannelPair() {
        int fds[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
        left = std::make_unique<PlainChannel>(Socket(fds[0]));
        right = std::make_unique<PlainChannel>(Socket(fds[1]));
    }
};

StreamFailure failureOf(ChannelPair& pair, std::uint32_t limit, int timeoutMs) {
    try {
        readFrame(*pair.right, limit, timeoutMs);
    } catch (const StreamError& error) {
        return error.failure();
    }
    ADD_FAILURE() << "readFrame did not fail";
    return StreamFailure::Io;
}

}  // namespace

TEST(NetworkFraming, LengthIsFourBytesBigEndian) {
    unsigned char header[frameHeaderSize];
    encodeFrameLength(0x01020304u, header);
    EXPECT_THAT(header, testing::ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(decodeFrameLength(header), 0x01020304u);
    const unsigned char top[frameHeaderSize] = {0xFF, 0, 0, 1};
    EXPECT_EQ(decodeFrameLength(top), 0xFF000001u);
}

TEST(NetworkFraming, FramesRoundTripInOrderWhateverTheirSize) {
    ChannelPair pair;
    const Bytes empty;
    const Bytes small = {1, 2, 3};
    Bytes filled(1 << 20);
    for (std::size_t i = 0; i < filled.size(); ++i) {
        filled[i] = static_cast<unsigned char>(i * 7);
    }
    const Bytes& large = filled;
    // The large frame exceeds the socket buffer, so the writer needs the reader running.
    std::thread writer([&] {
        for (const Bytes* frame : {&empty, &small, &large}) {
            writeFrame(*pair.left, frame->data(), frame->size(), 5000);
        }
    });
    EXPECT_EQ(readFrame(*pair.right, defaultMaxFrameSize, 5000), empty);
    EXPECT_EQ(readFrame(*pair.right, defaultMaxFrameSize, 5000), small);
    EXPECT_EQ(readFrame(*pair.right, defaultMaxFrameSize, 5000), large);
    writer.join();
}

TEST(NetworkFraming, CleanCloseBetweenFramesIsNoFrame) {
    ChannelPair pair;
    const Bytes one = {9};
    writeFrame(*pair.left, one.data(), one.size(), 1000);
    pair.left.reset();
    EXPECT_EQ(readFrame(*pair.right, 16, 1000), one);
    EXPECT_FALSE(readFrame(*pair.right, 16, 1000).has_value());
}

TEST(NetworkFraming, CloseInsideTheHeaderOrThePayloadIsMidFrame) {
    {
        ChannelPair pair;
        const unsigned char half[] = {0, 0};
        pair.left->writeAll(half, sizeof(half), 1000);
        pair.left.reset();
        EXPECT_EQ(failureOf(pair, 16, 1000), StreamFailure::ClosedMidFrame);
    }
    {
        ChannelPair pair;
        const unsigned char header[] = {0, 0, 0, 10, 'a', 'b'};
        pair.left->writeAll(header, sizeof(header), 1000);
        pair.left.reset();
        EXPECT_EQ(failureOf(pair, 16, 1000), StreamFailure::ClosedMidFrame);
    }
}

TEST(NetworkFraming, LengthAboveTheLimitIsRefusedWithoutAllocating) {
    ChannelPair pair;
    // 4 GiB - 1: allocating it would fail or exhaust memory, so passing means it was not tried.
    const unsigned char header[] = {0xFF, 0xFF, 0xFF, 0xFF};
    pair.left->writeAll(header, sizeof(header), 1000);
    try {
        readFrame(*pair.right, 1024, 1000);
        FAIL() << "oversize frame accepted";
    } catch (const StreamError& error) {
        EXPECT_EQ(error.failure(), StreamFailure::Oversize);
        EXPECT_THAT(error.what(), HasSubstr("4294967295 bytes exceeds the limit of 1024 bytes"));
    }
}

TEST(NetworkFraming, LimitItselfIsAccepted) {
    ChannelPair pair;
    const Bytes exact(1024, 0x5A);
    writeFrame(*pair.left, exact.data(), exact.size(), 1000);
    EXPECT_EQ(readFrame(*pair.right, 1024, 1000), exact);
}

TEST(NetworkFraming, SilentPeerTimesOutWithinTheLimit) {
    ChannelPair pair;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf(pair, 16, 200), StreamFailure::TimedOut);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(190));
    EXPECT_LT(waited, std::chrono::seconds(3));
}
