// The receiver protocol of the runtime jar, end to end: the staged library starts a real JVM with
// the staged OstrelinkJvmRuntime.jar and passes every message to its Receiver.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

#include "common/HostLibrary.h"
#include "common/Messages.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::IReceiver;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr unsigned char echoOperation = 0;
constexpr unsigned char invokeOperation = 1;
constexpr unsigned char runtimeInfoOperation = 2;
const std::string targets = "com.ostrelink.tests.host.HostTargets";

Bytes request(unsigned char operation, const std::string& payloadText) {
    Bytes message = makeMessage(2, 0, payloadText);
    message[11] = operation;
    return message;
}

Bytes invoke(const std::vector<std::string>& fields) {
    std::string text;
    for (const std::string& field : fields) {
        text += (text.empty() ? "" : std::string(1, '\0')) + field;
    }
    return request(invokeOperation, text);
}

std::string payloadText(const Bytes& reply) {
    return reply.size() < 24 ? std::string() : std::string(reply.begin() + 24, reply.end());
}

class ProtocolRoad : public testing::Test {
protected:
    void SetUp() override {
        auto create = HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver");
        receiver = create(RuntimeOperationMode::Called);
        ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
        ASSERT_EQ(exchange(makeMessage(2, 1, HOST_TARGETS_JAR)), acknowledgeBytes());
    }

    Bytes exchange(Bytes message) {
        const int length = receiver->SendCommand(message.data(), static_cast<int>(message.size()));
        Bytes reply(static_cast<std::size_t>(length));
        receiver->ReadResponse(reply.data(), length);
        return reply;
    }

    // An ordinary or exception reply of the JVM to runtime 8.
    void expectReply(const Bytes& reply, unsigned char commandType, unsigned char operation,
                     const std::string& text) {
        ASSERT_GE(reply.size(), 24U);
        EXPECT_EQ(reply[0], 8);
        EXPECT_EQ(reply[9], 2);
        EXPECT_EQ(reply[10], commandType);
        EXPECT_EQ(reply[11], operation);
        EXPECT_EQ(payloadText(reply), text);
    }

    IReceiver* receiver = nullptr;
};

TEST_F(ProtocolRoad, EchoComesBackByteForByteWhateverTheCommandTypeAndSize) {
    Bytes small = request(echoOperation, "echo me");
    for (int i = 12; i < 24; ++i) {
        small[static_cast<std::size_t>(i)] = static_cast<unsigned char>(i);
    }
    EXPECT_EQ(exchange(small), small);
    Bytes exceptionType = makeMessage(2, 10, "not a reply");
    EXPECT_EQ(exchange(exceptionType), exceptionType);
    Bytes large = request(echoOperation, std::string(64 * 1024, 'x'));
    large.back() = 0xff;
    EXPECT_EQ(exchange(large), large);
}

TEST_F(ProtocolRoad, InvokeCallsStaticMethodsWithNoneOneAndTwoArguments) {
    expectReply(exchange(invoke({targets, "greeting"})), 0, invokeOperation, "hello");
    const Bytes version = exchange(invoke({"java.lang.System", "getProperty", "java.version"}));
    expectReply(version, 0, invokeOperation, payloadText(version));
    EXPECT_THAT(payloadText(version), StartsWith("17."));
    expectReply(exchange(invoke({targets, "join", "\xc3\xa9t\xc3\xa9", "b"})), 0, invokeOperation,
                "\xc3\xa9t\xc3\xa9+b");
    expectReply(exchange(invoke({targets, "length", "four"})), 0, invokeOperation, "4");
}

TEST_F(ProtocolRoad, JavaFailuresComeBackAsExceptionReplies) {
    expectReply(exchange(invoke({"no.such.Type", "m"})), 10, invokeOperation,
                "java.lang.ClassNotFoundException: no.such.Type");
    expectReply(exchange(invoke({targets, "absent", "x"})), 10, invokeOperation,
                "java.lang.NoSuchMethodException: " + targets + ".absent(java.lang.String)");
    expectReply(exchange(invoke({targets, "fail", "now"})), 10, invokeOperation,
                "java.lang.IllegalStateException: broken on purpose: now");
    expectReply(exchange(request(9, "")), 10, 9,
                "java.lang.IllegalArgumentException: unknown operation 9");
    // A reply of the thread after a failure is its own, not the failure's.
    expectReply(exchange(invoke({targets, "greeting"})), 0, invokeOperation, "hello");
}

TEST_F(ProtocolRoad, AMessageWithoutOperationByteGetsAnExceptionReply) {
    Bytes header(11, 0);
    header[0] = 2;
    header[9] = 8;
    header[10] = 5;
    expectReply(exchange(header), 10, 0,
                "java.lang.IllegalArgumentException: message of 11 bytes has no operation byte "
                "at offset 11");
}

TEST_F(ProtocolRoad, HeartBeatIsAcknowledged) {
    Bytes beat(13, 0);
    beat[0] = 2;
    beat[9] = 8;
    beat[10] = 11;
    beat[11] = 0x31;
    beat[12] = 0x32;
    EXPECT_EQ(exchange(beat), acknowledgeBytes());
}

TEST_F(ProtocolRoad, RuntimeInfoNamesTheJvmAndTheClassPathItWasStartedWith) {
    const Bytes reply = exchange(request(runtimeInfoOperation, ""));
    expectReply(reply, 0, runtimeInfoOperation, payloadText(reply));
    const std::string info = payloadText(reply);
    EXPECT_THAT(info, StartsWith("java.version: 17."));
    EXPECT_THAT(info, HasSubstr("\njava.vendor: "));
    EXPECT_THAT(info, HasSubstr("\njava.home: "));
    EXPECT_THAT(info, HasSubstr("/Binaries/Jvm/OstrelinkJvmRuntime.jar:" HOST_TARGETS_JAR "\n"));
}

TEST_F(ProtocolRoad, ThreadsKeepTheirOwnRepliesAndFailures) {
    constexpr int threadCount = 6;
    constexpr int rounds = 300;
    std::atomic<int> failures{0};
    const auto work = [&](int t) {
        for (int i = 0; i < rounds; ++i) {
            const std::string tag = std::to_string(t) + "-" + std::to_string(i);
            const Bytes echo = request(echoOperation, tag);
            const bool echoed = exchange(echo) == echo;
            const bool joined =
                payloadText(exchange(invoke({targets, "join", tag, "t"}))) == tag + "+t";
            const Bytes failed = exchange(invoke({targets, "fail", tag}));
            if (!echoed || !joined || failed.size() < 24 || failed[10] != 10 ||
                payloadText(failed) !=
                    "java.lang.IllegalStateException: broken on purpose: " + tag) {
                ++failures;
            }
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            try {
                work(t);
            } catch (const std::exception&) {
                ++failures;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
