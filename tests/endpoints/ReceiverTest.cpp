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
    try {
        createReceiver(RuntimeOperationMode::NotSet);
        FAIL() << "CreateReceiver(-1) returned";
    } catch (const std::exception& exception) {
        EXPECT_STREQ(exception.what(),
                     "Ostrelink Native Exception: Exception code 032. \nRuntime not initialized");
    }
    EXPECT_EQ(getReceiver(), nullptr);
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    ASSERT_NE(receiver, nullptr);
    EXPECT_EQ(sendAndRead(receiver, healthCheckMessage()), acknowledgeBytes());
}

// The first creator decides the mode for the whole process; a Called receiver prints the runtime
// info on Initialize and a Calling one does not.
TEST(ReceiverFactory, FirstModeWinsCallingThenCalled) {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Calling);
    EXPECT_EQ(createReceiver(RuntimeOperationMode::Called), receiver);
    testing::internal::CaptureStdout();
    EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                Not(HasSubstr("JVM Native Launcher Runtime Info")));
}

TEST(ReceiverFactory, FirstModeWinsCalledThenCalling) {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    EXPECT_EQ(createReceiver(RuntimeOperationMode::Calling), receiver);
    testing::internal::CaptureStdout();
    EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("JVM Native Launcher Runtime Info"));
}

// Racing creators on a fresh process: one object, one mode, whatever the interleaving.
TEST(ReceiverFactory, RacingCreatorsAgreeOnOneReceiver) {
    constexpr int threadCount = 8;
    std::vector<IReceiver*> seen(threadCount, nullptr);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            while (!go.load()) {
                std::this_thread::yield();
            }
            seen[static_cast<std::size_t>(i)] = createReceiver(
                i % 2 == 0 ? RuntimeOperationMode::Called : RuntimeOperationMode::Calling);
        });
    }
    go = true;
    for (auto& thread : threads) {
        thread.join();
    }
    for (IReceiver* receiver : seen) {
        EXPECT_EQ(receiver, seen.front());
    }
    EXPECT_NE(seen.front(), nullptr);
}

TEST(Receiver, HealthCheckAnswersAcknowledgeReplyByteForByte) {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    Bytes message = healthCheckMessage();
    ASSERT_EQ(receiver->SendCommand(message.data(), static_cast<int>(message.size())), 17);
    Bytes reply(20, 0xEE);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), 20), 0);
    Bytes expected = acknowledgeBytes();
    expected.resize(20, 0xEE);  // the tail past the reply stays untouched
    EXPECT_EQ(reply, expected);
}

// Only exactly twelve bytes at offset 24 count; what follows plays no part.
TEST(Receiver, HealthCheckIgnoresTrailingBytes) {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    EXPECT_EQ(sendAndRead(receiver, makeMessage(2, 0, "health_check and more")),
              acknowledgeBytes());
}

TEST(Receiver, ForwardingOperationsOfTheJvmLauncherReturnOne) {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    Bytes message = healthCheckMessage();
    EXPECT_EQ(receiver->SetEmbeddedRuntime(0, "/nowhere"), 1);
    EXPECT_EQ(receiver->LoadOptimizedMethod("anything"), 1);
    EXPECT_EQ(receiver->DeployRuntime(message.data(), static_cast<int>(message.size()), "x", 7), 1);
}

TEST(Receiver, SecondInitializeIsANoOpThatReturnsZero) {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    testing::internal::CaptureStdout();
    EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_EQ(receiver->Initialize(5, 7, 3), 0);
    const std::string output = testing::internal::GetCapturedStdout();
    // The runtime info is printed once, by the first Initialize only.
    const std::string marker = "JVM Native Launcher Runtime Info";
    const auto first = output.find(marker);
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(output.find(marker, first + 1), std::string::npos);
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
