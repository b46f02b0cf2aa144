// The creators of the process's transmitter and the rule that the first mode wins.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

#include "TransportSupport.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::GetTransmitterFn;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;
using testing::HasSubstr;
using testing::Not;

namespace {

using SetOperationModeFn = int (*)();

ITransmitter* getTransmitter() {
    return HostLibrary::jvmRuntime().get<GetTransmitterFn>("GetTransmitter")();
}

int setOperationModeForTransmitter() {
    return HostLibrary::jvmRuntime().get<SetOperationModeFn>(
        "_Z30SetOperationModeForTransmitterv")();
}

ITransmitter* createTransmitter(RuntimeOperationMode mode) {
    return HostLibrary::jvmRuntime().get<Ostrelink::Native::Interfaces::CreateTransmitterFn>(
        "CreateTransmitter")(mode);
}

IReceiver* createReceiver(RuntimeOperationMode mode) {
    return HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver")(mode);
}

// A Called receiver prints the runtime info when it comes up, a Calling one does not: that is
// how a test sees the mode that the process settled on.
bool receiverComesUpAsCalled() {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    testing::internal::CaptureStdout();
    receiver->Initialize(8, 2, 0);
    return testing::internal::GetCapturedStdout().find("JVM Native Launcher Runtime Info") !=
           std::string::npos;
}

TEST(TransmitterFactory, GetTransmitterIsNullUntilCreatedThenOneObject) {
    EXPECT_EQ(getTransmitter(), nullptr);
    ITransmitter* transmitter = createTransmitter(RuntimeOperationMode::Called);
    ASSERT_NE(transmitter, nullptr);
    EXPECT_EQ(getTransmitter(), transmitter);
    EXPECT_EQ(createTransmitter(RuntimeOperationMode::Calling), transmitter);
    EXPECT_TRUE(receiverComesUpAsCalled());
}

TEST(TransmitterFactory, SetOperationModeFirstFixesCallingForEveryLaterCreator) {
    EXPECT_EQ(setOperationModeForTransmitter(), 0);
    ITransmitter* transmitter = getTransmitter();
    ASSERT_NE(transmitter, nullptr);
    EXPECT_EQ(setOperationModeForTransmitter(), 0);
    EXPECT_EQ(createTransmitter(RuntimeOperationMode::Called), transmitter);
    EXPECT_FALSE(receiverComesUpAsCalled());
}

TEST(TransmitterFactory, SetOperationModeAfterACalledReceiverKeepsCalled) {
    ASSERT_NE(createReceiver(RuntimeOperationMode::Called), nullptr);
    EXPECT_EQ(getTransmitter(), nullptr);
    EXPECT_EQ(setOperationModeForTransmitter(), 0);
    EXPECT_NE(getTransmitter(), nullptr);
    EXPECT_TRUE(receiverComesUpAsCalled());
}

TEST(TransmitterFactory, NotSetBuildsATransmitterAndLeavesTheModeOpen) {
    ITransmitter* transmitter = createTransmitter(RuntimeOperationMode::NotSet);
    ASSERT_NE(transmitter, nullptr);
    // The mode is still -1, so a receiver can't be built with it.
    EXPECT_THAT(failureOf([] { createReceiver(RuntimeOperationMode::NotSet); }),
                HasSubstr("Exception code 032"));
    EXPECT_EQ(createTransmitter(RuntimeOperationMode::Called), transmitter);
    EXPECT_TRUE(receiverComesUpAsCalled());
}

}  // namespace
