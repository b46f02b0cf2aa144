#include <gtest/gtest.h>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

#include "common/HostLibrary.h"
#include "common/Messages.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::GetReceiverFn;
using Ostrelink::Native::Interfaces::IReceiver;

namespace {

IReceiver* createReceiver(RuntimeOperationMode mode) {
    return HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver")(mode);
}

TEST(Receiver, HealthCheckAnswersAcknowledgeReplyWithoutJvm) {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    ASSERT_NE(receiver, nullptr);
    Bytes message = healthCheckMessage();
    ASSERT_EQ(receiver->SendCommand(message.data(), static_cast<int>(message.size())), 17);
    Bytes reply(17, 0xEE);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), 17), 0);
    EXPECT_EQ(reply, acknowledgeBytes());
}

TEST(Receiver, GetReceiverIsNullUntilCreated) {
    auto getReceiver = HostLibrary::jvmRuntime().get<GetReceiverFn>("GetReceiver");
    EXPECT_EQ(getReceiver(), nullptr);
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    EXPECT_EQ(getReceiver(), receiver);
}

}  // namespace
