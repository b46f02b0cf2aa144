// The network channel's failures with client libraries that misbehave or are missing. Each
// failure leaves the channel in the transmitter's map, and the next message tries again.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TransportSupport.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::ITransmitter;
using testing::EndsWith;
using testing::StartsWith;

namespace {

constexpr unsigned char local[4] = {127, 0, 0, 1};

std::string reinstall(const char* code) {
    return std::string("Ostrelink Native Exception: Exception code ") + code +
           ". \nReinstall Ostrelink package";
}

std::string sendFailure(ITransmitter* sender, unsigned char connectionType, unsigned short port) {
    Bytes message = routedMessage(8, 2, connectionType, "ping", local, port);
    return failureOf(
        [&] { sender->SendCommand(message.data(), static_cast<int>(message.size())); });
}

TEST(NetworkFailures, ClientLibraryWithoutFactoryGives011EveryTime) {
    ITransmitter* sender = transmitterOf("ClientWithoutFactory");
    EXPECT_EQ(sendFailure(sender, 1, 9000), reinstall("011"));
    EXPECT_EQ(sendFailure(sender, 1, 9000), reinstall("011"));
    EXPECT_EQ(sendFailure(sender, 1, 9001), reinstall("011"));
}

TEST(NetworkFailures, FactoryReturningNullGives012AndIsAskedAgainEachTime) {
    ITransmitter* sender = transmitterOf("ClientNullFactory");
    EXPECT_EQ(sendFailure(sender, 1, 9000), reinstall("012"));
    EXPECT_EQ(sendFailure(sender, 1, 9000), reinstall("012"));

    void* client = dlopen(installedFile("ClientNullFactory", "libOstrelinkTcpClient.so").c_str(),
                          RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(client, nullptr);
    using CallsFn = int (*)();
    EXPECT_EQ(reinterpret_cast<CallsFn>(dlsym(client, "ClientFactoryCalls"))(), 2);
    dlclose(client);
}

TEST(NetworkFailures, MissingClientLibraryFailsInTheLoaderAndIsLookedForAgain) {
    ITransmitter* sender = transmitterOf("ClientWithoutFactory");
    for (int attempt = 0; attempt < 2; ++attempt) {
        const std::string text = sendFailure(sender, 2, 9443);
        EXPECT_THAT(text,
                    StartsWith("Ostrelink Native Exception: Exception code 001. \nCannot load: "));
        EXPECT_THAT(text, EndsWith("libOstrelinkTcpTlsClient.so. \nError: File not found."));
    }
}

}  // namespace
