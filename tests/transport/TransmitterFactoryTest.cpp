// The creators of the process's transmitter and the rule that the first mode wins.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

#include "TransportSupport.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using namespace Ostrelink::Native::Interfaces;

namespace {

const auto getTransmitter = [] {
    return HostLibrary::jvmRuntime().get<GetTransmitterFn>("GetTransmitter")();
};
const auto setOperationModeForTransmitter = [] {
    return HostLibrary::jvmRuntime().get<int (*)()>("_Z30SetOperationModeForTransmitterv")();
};
const auto createTransmitter = [](RuntimeOperationMode mode) {
    return HostLibrary::jvmRuntime().get<CreateTransmitterFn>("CreateTransmitter")(mode);
};
const auto createReceiver = [](RuntimeOperationMode mode) {
    return HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver")(mode);
};

// A Called receiver prints the runtime info when it comes up, a Calling one does not: that is
// how a test sees the mode that the process settled on.
bool receiverComesUpAsCalled() {
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    testing::internal::CaptureStdout();
    receiver->Initialize(8, 2, 0);
    return testing::internal::GetCapturedStdout().find("JVM Native Launcher Runtime Info") !=
           std::string::npos;
}

TEST(TransmitterFactory, SetOperationModeFirstFixesCallingForEveryLaterCreator) {
    EXPECT_EQ(setOperationModeForTransmitter(), 0);
    ITransmitter* transmitter = getTransmitter();
    ASSERT_NE(transmitter, nullptr);
    EXPECT_EQ(setOperationModeForTransmitter(), 0);
    EXPECT_EQ(createTransmitter(RuntimeOperationMode::Called), transmitter);
    EXPECT_FALSE(receiverComesUpAsCalled());
}

// There is no transmitter until one is created, then one object. NotSet builds it and leaves the
// mode open, so a receiver can't be built with it; the first mode set after that wins.
TEST(TransmitterFactory, NotSetBuildsTheOneTransmitterAndLeavesTheModeOpen) {
    EXPECT_EQ(getTransmitter(), nullptr);
    ITransmitter* transmitter = createTransmitter(RuntimeOperationMode::NotSet);
    ASSERT_NE(transmitter, nullptr);
    EXPECT_EQ(getTransmitter(), transmitter);
    EXPECT_THAT(failureOf([] { createReceiver(RuntimeOperationMode::NotSet); }),
                testing::HasSubstr("Exception code 032"));
    EXPECT_EQ(createTransmitter(RuntimeOperationMode::Called), transmitter);
    EXPECT_EQ(createTransmitter(RuntimeOperationMode::Calling), transmitter);
    EXPECT_TRUE(receiverComesUpAsCalled());
}

}  // namespace
