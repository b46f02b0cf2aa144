#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

#include "common/Calls.h"
#include "common/HostLibrary.h"
#include "common/Messages.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::GetReceiverFn;
using Ostrelink::Native::Interfaces::IReceiver;
using testing::HasSubstr;
using testing::Not;

namespace {

IReceiver* createReceiver(RuntimeOperationMode mode) {
    return HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver")(mode);
}

IReceiver* getReceiver() {
    return HostLibrary::jvmRuntime().get<GetReceiverFn>("GetReceiver")();
}

TEST(ReceiverFactory, GetReceiverIsNullUntilCreatedThenTheSameObject) {
    EXPECT_EQ(getReceiver(), nullptr);
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    ASSERT_NE(receiver, nullptr);
    EXPECT_EQ(getReceiver(), receiver);
    EXPECT_EQ(createReceiver(RuntimeOperationMode::Called), receiver);
}

TEST(ReceiverFactory, NotSetOnAFreshProcessThrows032AndALaterRealModeWorks) {
    EXPECT_EQ(failureOf([] { createReceiver(RuntimeOperationMode::NotSet); }),
              "Ostrelink Native Exception: Exception code 032. \nRuntime not initialized");
    EXPECT_EQ(getReceiver(), nullptr);
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    ASSERT_NE(receiver, nullptr);
    EXPECT_EQ(sendAndRead(receiver, healthCheckMessage()), acknowledgeBytes());
}

// The first creator decides the mode for the whole process; a Called receiver prints the runtime
// info on its first Initialize only, and a Calling one never.
class FirstModeWins : public testing::TestWithParam<RuntimeOperationMode> {};

TEST_P(FirstModeWins, AndTheSecondCreatorGetsTheSameReceiver) {
    const bool called = GetParam() == RuntimeOperationMode::Called;
    IReceiver* receiver = createReceiver(GetParam());
    EXPECT_EQ(createReceiver(called ? RuntimeOperationMode::Calling : RuntimeOperationMode::Called),
              receiver);
    testing::internal::CaptureStdout();
    EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_EQ(receiver->Initialize(5, 7, 3), 0);
    const std::string output = testing::internal::GetCapturedStdout();
    const std::string marker = "JVM Native Launcher Runtime Info";
    EXPECT_EQ(output.find(marker) != std::string::npos, called);
    EXPECT_EQ(output.find(marker), output.rfind(marker));
}

INSTANTIATE_TEST_SUITE_P(Modes, FirstModeWins,
                         testing::Values(RuntimeOperationMode::Calling,
                                         RuntimeOperationMode::Called));

// Only exactly twelve bytes at offset 24 count; what follows plays no part. The tail of the read
// buffer past the reply stays untouched.
TEST(Receiver, HealthCheckAnswersAcknowledgeReplyByteForByte) {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    Bytes message = makeMessage(2, 0, "health_check and more");
    ASSERT_EQ(receiver->SendCommand(message.data(), static_cast<int>(message.size())), 17);
    Bytes reply(20, 0xEE);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), 20), 0);
    Bytes expected = acknowledgeBytes();
    expected.resize(20, 0xEE);
    EXPECT_EQ(reply, expected);
}

// Many threads at once, each with payloads of its own, echoed by Java, between health checks:
// every thread reads back exactly the reply to its own command.
TEST(Receiver, RepliesNeverReachAnotherThread) {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                const Bytes echo = makeMessage(2, 5, std::to_string(t) + " " + std::to_string(i));
                const bool check = i % 2 == 0;
                try {
                    const Bytes reply = sendAndRead(receiver, check ? healthCheckMessage() : echo);
                    failures += reply == (check ? acknowledgeBytes() : echo) ? 0 : 1;
                } catch (const std::exception&) {
                    ++failures;  // another thread took this one's reply
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
