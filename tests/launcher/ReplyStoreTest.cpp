#include "LauncherTesting.h"

const std::string noReply = "JVM Launcher: Exception code 041.\nError while reading response";

// What a read of length bytes leaves in a buffer of bytes 0xEE, one byte past length included;
// or the text of its failure, without the runtime info.
static std::string read(IReceiver* receiver, int length) {
    Bytes buffer(64, 0xEE);
    try {
        receiver->ReadResponse(buffer.data(), length);
        return textOf(Bytes(buffer.begin(), buffer.begin() + length + 1));
    } catch (const std::exception& failure) {
        const std::string text = failure.what();
        return text.substr(0, text.find("\nRUNTIME INFO:\n"));
    }
}

TEST(ReplyStore, EachReadTakesTheLastReplyOfItsOwnThreadOnce) {
    const InstallationCopy copy;
    IReceiver* receiver = copy.receiver();
    const std::string ack = textOf(acknowledgeBytes()), tail = "\xEE";
    // Each thread has its own payload, so a reply that reaches the wrong thread shows.
    send(receiver, javaCommand("the main thread's"));
    std::thread([&] {
        EXPECT_EQ(read(receiver, 4), noReply);
        EXPECT_EQ(sendAndRead(receiver, javaCommand("another's")), javaCommand("another's"));
        EXPECT_EQ(read(receiver, 4), noReply);
        send(receiver, healthCheckMessage());
    }).join();
    std::thread([&] { EXPECT_EQ(read(receiver, 17), noReply); }).join();
    EXPECT_EQ(read(receiver, 41), textOf(javaCommand("the main thread's")) + tail);

    // A later reply replaces one unread, a native answer a Java reply too.
    for (const Bytes& later :
         {javaCommand("second"), healthCheckMessage(), makeMessage(2, 1, testJar("probe"))}) {
        const std::string reply = textOf(sendAndRead(receiver, later));
        send(receiver, javaCommand("java reply, longer"));
        send(receiver, later);
        EXPECT_EQ(read(receiver, 40), reply + std::string(41 - reply.size(), '\xEE'));
    }
    // A short buffer gets the first bytes and the rest is gone; a read of nothing still takes the
    // reply.
    for (const int length : {4, 0}) {
        send(receiver, healthCheckMessage());
        EXPECT_EQ(read(receiver, length), ack.substr(0, std::size_t(length)) + tail);
        EXPECT_EQ(read(receiver, 4), noReply);
    }

    send(receiver, healthCheckMessage());
    Bytes ten(10, 0);
    for (const int length : {40, 10, -1}) {
        EXPECT_THAT(
            failureOf([&] { receiver->SendCommand(length == 40 ? nullptr : ten.data(), length); }),
            StartsWith("JVM Launcher: Exception code 042. Message is null or "
                       "shorter than its 11-byte header\nRUNTIME INFO:\n"));
    }
    const std::string badBuffer =
        "JVM Launcher: Exception code 043. Response buffer is null or its length is negative";
    EXPECT_EQ(read(receiver, -1), badBuffer);
    EXPECT_THAT(failureOf([&] { receiver->ReadResponse(nullptr, 17); }), StartsWith(badBuffer));
    EXPECT_EQ(read(receiver, 17), ack + tail);
    // Eleven bytes hold the header: here a load-library command of no path. A null buffer of
    // length 0 asks for nothing, and the reply goes.
    ten.push_back(1);
    EXPECT_EQ(receiver->SendCommand(ten.data(), 11), 17);
    EXPECT_EQ(receiver->ReadResponse(nullptr, 0), 0);
    EXPECT_EQ(read(receiver, 4), noReply);
}
