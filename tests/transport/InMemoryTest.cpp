// The in-memory road: host, this library's transmitter, the in-memory channel, a sibling runtime
// library (the Cpp stand-in, runtime 8, or this library itself, runtime 2) and back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <ostrelink/RuntimeFactories.h>

#include "TransportSupport.h"
#include "common/TemporaryDirectory.h"

using Ostrelink::Native::Interfaces::ITransmitter;
using testing::MatchesRegex;

namespace {

Bytes ask(ITransmitter* sender, const std::string& query) {
    return payloadOf(sendAndRead(sender, routedMessage(cpp, jvm, 0, query), cpp));
}

TEST(InMemory, DeliversToTheCppRuntimeAndBackWithItsRepliesAndFailures) {
    ITransmitter* sender = transmitterOf();
    Bytes message = routedMessage(cpp, jvm, 0, "hello");
    message[1] = 7;
    EXPECT_EQ(sendAndRead(sender, message, cpp), message);
    EXPECT_EQ(sendAndRead(sender, message, cpp), message);
    // The called half made the receiver and the transmitter with mode 1, and initialised the
    // receiver once with (calling, called, version) = (2, 8, 7).
    EXPECT_EQ(ask(sender, "factories"), (Bytes{1, 1, 1, 1}));
    EXPECT_EQ(ask(sender, "runtimes"), (Bytes{jvm, cpp, 7, 1}));
    // DeployRuntime goes to the called runtime's transmitter.
    Bytes deploy = routedMessage(cpp, jvm, 0, "deploy");
    EXPECT_EQ(sender->DeployRuntime(deploy.data(), static_cast<int>(deploy.size()), "text", 3), 1);
    EXPECT_EQ(ask(sender, "deployments"), (Bytes{1}));
    EXPECT_EQ(sendAndRead(sender, routedMessage(cpp, jvm, 0, "exception"), cpp).at(10), 10);
    EXPECT_EQ(failureOf([&] { sendAndRead(sender, routedMessage(cpp, jvm, 0, "fail")); }),
              "Cpp runtime: command failed on request");
    EXPECT_THAT(failureOf([&] { sendAndRead(sender, routedMessage(11, jvm, 0)); }),
                MatchesRegex("Ostrelink Native Exception: Exception code 001. \nCannot load: "
                             "/.*/Unknown. \nError: File not found."));
    // The read's first byte names the runtime to read from.
    const int length = sender->SendCommand(message.data(), static_cast<int>(message.size()));
    Bytes buffer(static_cast<std::size_t>(length), 5);
    EXPECT_EQ(failureOf([&] { sender->ReadResponse(buffer.data(), length); }),
              "Ostrelink Native Exception: Exception code 019. \nNo receiver of runtime Python is "
              "set up on the in-memory channel");
    buffer[0] = cpp;
    EXPECT_EQ(sender->ReadResponse(buffer.data(), length), 0);
    EXPECT_EQ(buffer, message);
    // A calling half whose library can't be loaded is tried once: one record on standard error,
    // and the messages arrive.
    const TemporaryDirectory directory;
    const int savedError = dup(2);
    const int errorFile = open(directory.file("stderr").c_str(), O_CREAT | O_WRONLY, 0600);
    dup2(errorFile, 2);
    const Bytes fromUnknown = routedMessage(cpp, 11, 0, "hello");
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(sendAndRead(sender, fromUnknown, cpp), fromUnknown);
    }
    dup2(savedError, 2);
    close(errorFile);
    close(savedError);
    std::stringstream records;
    records << std::ifstream(directory.file("stderr")).rdbuf();
    EXPECT_THAT(records.str(), MatchesRegex("(.|\n)*Cannot load: (.|\n)*"));
    EXPECT_EQ(records.str().find("Cannot load: "), records.str().rfind("Cannot load: "));
}

// Runtime 8 sends a health check to this library itself: the calling half sets up the Cpp
// runtime with mode 0, and the called half opens this very library again by path. Deploying
// back to it would reach this library's own transmitter, which would send the same message into
// the same channel again: the chain ends there, and the channel still serves.
TEST(InMemory, HealthCheckToThisLibraryAndADeployThatLoopsBack) {
    ITransmitter* sender = transmitterOf();
    EXPECT_EQ(sendAndRead(sender, healthCheckMessage(jvm), jvm), acknowledgeBytes());
    EXPECT_EQ(ask(sender, "factories"), (Bytes{0, 0, 1, 1}));
    EXPECT_EQ(ask(sender, "runtimes"), (Bytes{cpp, jvm, 0, 1}));
    Bytes deploy = routedMessage(jvm, cpp, 0, "deploy");
    EXPECT_EQ(failureOf([&] {
                  sender->DeployRuntime(deploy.data(), static_cast<int>(deploy.size()), "", 0);
              }),
              "Ostrelink Native Exception: Exception code 028. \nDeployRuntime loops back to the "
              "transmitter that sent it");
    EXPECT_EQ(sendAndRead(sender, healthCheckMessage(jvm), jvm), acknowledgeBytes());
}

// A Cpp runtime that misbehaves. As the calling half of a pair its failure is recorded and
// dropped: the message still reaches this library's receiver. As the called half it fails
// every message with its code, each time: a failed set-up is tried again by the next message,
// but a receiver once made is kept (the factories it answers, if it has a receiver to ask).
struct Misbehaving {
    const char* installation;
    const char* code;
    Bytes factories;
};
void PrintTo(const Misbehaving& row, std::ostream* out) {
    *out << row.installation;
}
class InMemoryFailures : public testing::TestWithParam<Misbehaving> {};

TEST_P(InMemoryFailures, CalledHalfGivesItsCodeEachTimeCallingHalfIsSilent) {
    ITransmitter* sender = transmitterOf(GetParam().installation);
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(failureOf([&] { sendAndRead(sender, routedMessage(cpp, jvm, 0, "hello")); }),
                  std::string("Ostrelink Native Exception: Exception code ") + GetParam().code +
                      ". \nReinstall Ostrelink package");
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(sendAndRead(sender, healthCheckMessage(jvm), jvm), acknowledgeBytes());
    }
    // The calling half was tried once, not once per message.
    if (!GetParam().factories.empty()) {
        HostLibrary library(
            installedFile(GetParam().installation, "libOstrelinkCppRuntimeNative.so"));
        auto* receiver = library.get<Ostrelink::Native::Interfaces::CreateReceiverFn>(
            "CreateReceiver")(Ostrelink::Native::Definitions::RuntimeOperationMode::Called);
        EXPECT_EQ(payloadOf(sendAndRead(receiver, routedMessage(cpp, jvm, 0, "factories"))),
                  GetParam().factories);
    }
}

INSTANTIATE_TEST_SUITE_P(Sibling, InMemoryFailures,
                         testing::Values(Misbehaving{"CppWithoutReceiver", "014", {}},
                                         Misbehaving{"CppNullFactories", "015", {}},
                                         Misbehaving{
                                             "CppWithoutTransmitter", "016", {1, 0xFE, 2, 0}},
                                         Misbehaving{"CppNullTransmitter", "027", {1, 0, 2, 3}}),
                         [](const auto& row) { return std::string(row.param.installation); });

}  // namespace
