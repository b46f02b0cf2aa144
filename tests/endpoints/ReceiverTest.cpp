#include <gtest/gtest.h>

#include <string>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

#include "common/Calls.h"
#include "common/HostLibrary.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using namespace Ostrelink::Native::Interfaces;

namespace {

IReceiver* createReceiver(RuntimeOperationMode mode) {
    return HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver")(mode);
}

IReceiver* getReceiver() {
    return HostLibrary::jvmRuntime().get<GetReceiverFn>("GetReceiver")();
}

// NotSet on a fresh process makes nothing; then the first creator decides the mode for the whole
// process. A Called receiver prints the runtime info on its first Initialize only, a Calling one
// never. Only exactly twelve bytes at offset 24 ask for a health check, and the tail of the read
// buffer past the reply stays untouched.
class Receiver : public testing::TestWithParam<RuntimeOperationMode> {};

TEST_P(Receiver, NotSetRefusedThenTheFirstModeWinsForOneReceiverThatAnswersHealthChecks) {
    EXPECT_EQ(getReceiver(), nullptr);
    EXPECT_EQ(failureOf([] { createReceiver(RuntimeOperationMode::NotSet); }),
              "Ostrelink Native Exception: Exception code 032. \nRuntime not initialized");
    EXPECT_EQ(getReceiver(), nullptr);
    const bool called = GetParam() == RuntimeOperationMode::Called;
    IReceiver* receiver = createReceiver(GetParam());
    ASSERT_NE(receiver, nullptr);
    EXPECT_EQ(getReceiver(), receiver);
    EXPECT_EQ(createReceiver(called ? RuntimeOperationMode::Calling : RuntimeOperationMode::Called),
              receiver);
    testing::internal::CaptureStdout();
    EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_EQ(receiver->Initialize(5, 7, 3), 0);
    const std::string output = testing::internal::GetCapturedStdout();
    const std::string marker = "JVM Native Launcher Runtime Info";
    EXPECT_EQ(output.find(marker) != std::string::npos, called);
    EXPECT_EQ(output.find(marker), output.rfind(marker));
    Bytes message = makeMessage(2, 0, "health_check and more");
    ASSERT_EQ(receiver->SendCommand(message.data(), static_cast<int>(message.size())), 17);
    Bytes reply(20, 0xEE);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), 20), 0);
    Bytes expected = acknowledgeBytes();
    expected.resize(20, 0xEE);
    EXPECT_EQ(reply, expected);
}

INSTANTIATE_TEST_SUITE_P(Modes, Receiver,
                         testing::Values(RuntimeOperationMode::Calling,
                                         RuntimeOperationMode::Called));

}  // namespace
