#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "LauncherTesting.h"

using testing::StartsWith;

namespace {

constexpr const char* noReply = "JVM Launcher: Exception code 041.\nError while reading response";

class ReplyStore : public testing::Test {
protected:
    void SetUp() override {
        receiver = copy.createReceiver(RuntimeOperationMode::Called);
        ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    }

    int send(Bytes message) {
        return receiver->SendCommand(message.data(), static_cast<int>(message.size()));
    }

    std::string readFailure() {
        unsigned char buffer[4] = {};
        return failureOf([&] { receiver->ReadResponse(buffer, 4); });
    }

    InstallationCopy copy{testJar("probe")};
    IReceiver* receiver = nullptr;
};

TEST_F(ReplyStore, ASecondSendReplacesTheUnreadReply) {
    const Bytes first = javaCommand("first");
    const Bytes second = javaCommand("second, longer");
    EXPECT_EQ(send(first), static_cast<int>(first.size()));
    EXPECT_EQ(send(second), static_cast<int>(second.size()));
    Bytes buffer(second.size(), 0);
    EXPECT_EQ(receiver->ReadResponse(buffer.data(), static_cast<int>(buffer.size())), 0);
    EXPECT_EQ(buffer, second);
    EXPECT_THAT(readFailure(), StartsWith(noReply));
}

// Answers made in the native layer replace an unread Java reply as another Java reply does.
TEST_F(ReplyStore, AHealthCheckOrALoadLibraryCommandReplacesAnUnreadJavaReply) {
    for (const Bytes& native :
         {healthCheckMessage(), loadLibraryCommand(testJar("custom-first"))}) {
        send(javaCommand("java reply"));
        EXPECT_EQ(sendAndRead(receiver, native), acknowledgeBytes());
        EXPECT_THAT(readFailure(), StartsWith(noReply));
    }
}

TEST_F(ReplyStore, AShortBufferGetsTheFirstBytesAndTheRestIsGone) {
    const Bytes command = javaCommand("a reply longer than the buffer");
    send(command);
    unsigned char buffer[5] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(receiver->ReadResponse(buffer, 4), 0);
    EXPECT_EQ(Bytes(buffer, buffer + 4), Bytes(command.begin(), command.begin() + 4));
    EXPECT_EQ(buffer[4], 0xEE);
    EXPECT_THAT(readFailure(), StartsWith(noReply));
}

TEST_F(ReplyStore, ALongBufferKeepsItsTail) {
    send(healthCheckMessage());
    Bytes buffer(40, 0xAB);
    EXPECT_EQ(receiver->ReadResponse(buffer.data(), 40), 0);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 17), acknowledgeBytes());
    EXPECT_EQ(Bytes(buffer.begin() + 17, buffer.end()), Bytes(23, 0xAB));
}

TEST_F(ReplyStore, LengthZeroCopiesNothingAndStillRemovesTheEntry) {
    send(healthCheckMessage());
    unsigned char buffer[1] = {0x5A};
    EXPECT_EQ(receiver->ReadResponse(buffer, 0), 0);
    EXPECT_EQ(buffer[0], 0x5A);
    EXPECT_THAT(readFailure(), StartsWith(noReply));
}

// Each thread has its own payload, so a reply that reaches the wrong thread shows.
TEST_F(ReplyStore, AReplyCanBeReadOnlyOnTheThreadThatSent) {
    const Bytes mine = javaCommand("the main thread's reply");
    send(mine);
    std::thread other([&] {
        EXPECT_THAT(readFailure(), StartsWith(noReply));
        const Bytes its = javaCommand("the other thread's reply");
        EXPECT_EQ(sendAndRead(receiver, its), its);
        EXPECT_THAT(readFailure(), StartsWith(noReply));
    });
    other.join();
    Bytes buffer(mine.size(), 0);
    EXPECT_EQ(receiver->ReadResponse(buffer.data(), static_cast<int>(buffer.size())), 0);
    EXPECT_EQ(buffer, mine);
}

// A thread that ends with its reply unread takes the reply with it: no later thread reads it,
// not even one the C library gives the same id.
TEST_F(ReplyStore, AReplyLeftByAThreadThatEndedIsNotReadByItsSuccessor) {
    std::thread([&] { send(healthCheckMessage()); }).join();
    std::thread([&] { EXPECT_THAT(readFailure(), StartsWith(noReply)); }).join();
}

// Input that breaks the contract of the receiver's road is refused before any byte is touched.
TEST_F(ReplyStore, AMessageThatIsNullOrShorterThanTheHeaderGets042) {
    const std::string text =
        "JVM Launcher: Exception code 042. Message is null or shorter than "
        "its 11-byte header\nRUNTIME INFO:\n";
    EXPECT_THAT(failureOf([&] { receiver->SendCommand(nullptr, 40); }), StartsWith(text));
    Bytes tenBytes(10, 0);
    EXPECT_THAT(failureOf([&] { receiver->SendCommand(tenBytes.data(), 10); }), StartsWith(text));
    Bytes message = javaCommand("x");
    EXPECT_THAT(failureOf([&] { receiver->SendCommand(message.data(), -1); }), StartsWith(text));
    // Eleven bytes are enough for the header.
    Bytes eleven(11, 0);
    eleven[10] = 1;
    EXPECT_EQ(receiver->SendCommand(eleven.data(), 11), 17);
}

TEST_F(ReplyStore, ABadReadBufferGets043AndTheReplyStays) {
    const std::string text =
        "JVM Launcher: Exception code 043. Response buffer is null or its "
        "length is negative\nRUNTIME INFO:\n";
    send(healthCheckMessage());
    unsigned char buffer[17];
    EXPECT_THAT(failureOf([&] { receiver->ReadResponse(buffer, -1); }), StartsWith(text));
    EXPECT_THAT(failureOf([&] { receiver->ReadResponse(nullptr, 17); }), StartsWith(text));
    EXPECT_EQ(receiver->ReadResponse(buffer, 17), 0);
    EXPECT_EQ(Bytes(buffer, buffer + 17), acknowledgeBytes());
    // A null buffer of length 0 asks for nothing: the reply is dropped.
    send(healthCheckMessage());
    EXPECT_EQ(receiver->ReadResponse(nullptr, 0), 0);
    EXPECT_THAT(readFailure(), StartsWith(noReply));
}

}  // namespace
