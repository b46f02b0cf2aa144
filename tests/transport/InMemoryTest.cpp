// The in-memory road: host, this library's transmitter, the in-memory channel, a sibling runtime
// library (the Cpp stand-in, runtime 8, or this library itself, runtime 2) and back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

#include "TransportSupport.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr unsigned char jvm = 2;
constexpr unsigned char cpp = 8;

Bytes inMemoryMessage(unsigned char target, unsigned char calling, const std::string& payload) {
    return routedMessage(target, calling, 0, payload);
}

ITransmitter* stagedTransmitter() {
    return transmitterOf();
}

Bytes ask(ITransmitter* sender, const std::string& query) {
    return payloadOf(sendAndRead(sender, inMemoryMessage(cpp, jvm, query), cpp));
}

TEST(InMemory, DeliversToTheCppRuntimeAndBackOnceSetUp) {
    ITransmitter* sender = stagedTransmitter();
    Bytes message = inMemoryMessage(cpp, jvm, "hello");
    message[1] = 7;
    EXPECT_EQ(sendAndRead(sender, message, cpp), message);
    EXPECT_EQ(sendAndRead(sender, message, cpp), message);
    // The called half made the receiver and the transmitter with mode 1, and initialised the
    // receiver once with (calling, called, version) = (2, 8, 7).
    EXPECT_EQ(ask(sender, "factories"), (Bytes{1, 1, 1, 1}));
    EXPECT_EQ(ask(sender, "runtimes"), (Bytes{jvm, cpp, 7, 1}));
}

// Runtime 8 sends a health check to this library itself: the calling half sets up the Cpp
// runtime with mode 0, and the called half opens this very library again by path.
TEST(InMemory, HealthCheckToThisLibraryThroughTheTransmitter) {
    ITransmitter* sender = stagedTransmitter();
    Bytes check = healthCheckMessage(jvm);
    check[9] = cpp;
    EXPECT_EQ(sendAndRead(sender, check, jvm), acknowledgeBytes());
    EXPECT_EQ(ask(sender, "factories"), (Bytes{0, 0, 1, 1}));
    EXPECT_EQ(ask(sender, "runtimes"), (Bytes{cpp, jvm, 0, 1}));
}

TEST(InMemory, ExceptionRepliesAndForeignFailuresReachTheSender) {
    ITransmitter* sender = stagedTransmitter();
    Bytes reply = sendAndRead(sender, inMemoryMessage(cpp, jvm, "exception"), cpp);
    ASSERT_GE(reply.size(), 11u);
    EXPECT_EQ(reply[10], 10);
    Bytes failing = inMemoryMessage(cpp, jvm, "fail");
    EXPECT_EQ(
        failureOf([&] { sender->SendCommand(failing.data(), static_cast<int>(failing.size())); }),
        "Cpp runtime: command failed on request");
}

TEST(InMemory, TargetAboveTenFailsInTheLoader) {
    ITransmitter* sender = stagedTransmitter();
    Bytes message = inMemoryMessage(11, jvm, "hello");
    const std::string text =
        failureOf([&] { sender->SendCommand(message.data(), static_cast<int>(message.size())); });
    EXPECT_THAT(text,
                StartsWith("Ostrelink Native Exception: Exception code 001. \nCannot load: "));
    EXPECT_THAT(text, EndsWith("/Unknown. \nError: File not found."));
}

// The error logs of this test go to a directory of their own; how often they hold text.
std::size_t loggedTimes(const std::string& text) {
    static const std::filesystem::path directory = [] {
        const auto path = std::filesystem::current_path() /
                          testing::UnitTest::GetInstance()->current_test_info()->name();
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
        using SetWorkingDirectoryPathFn = int (*)(std::string);
        HostLibrary::jvmRuntime().get<SetWorkingDirectoryPathFn>(
            "_Z23SetWorkingDirectoryPathNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")(
            path.string());
        return path;
    }();
    std::size_t count = 0;
    for (const auto& file : std::filesystem::directory_iterator(directory)) {
        std::stringstream content;
        content << std::ifstream(file.path()).rdbuf();
        const std::string logged = content.str();
        for (auto at = logged.find(text); at != std::string::npos; at = logged.find(text, at + 1)) {
            ++count;
        }
    }
    return count;
}

// The calling half of the pair is tried once: one record, and no load attempt per message.
TEST(InMemory, CallingRuntimeAboveTenFailsSilentlyOnceAndTheMessagesArrive) {
    EXPECT_EQ(loggedTimes("Cannot load: "), 0u);
    ITransmitter* sender = stagedTransmitter();
    Bytes message = inMemoryMessage(cpp, 11, "hello");
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(sendAndRead(sender, message, cpp), message);
    }
    EXPECT_EQ(loggedTimes("Cannot load: "), 1u);
}

TEST(InMemory, ReadingFromARuntimeThatIsNotSetUpGives019) {
    ITransmitter* sender = stagedTransmitter();
    Bytes message = inMemoryMessage(cpp, jvm, "hello");
    const int length = sender->SendCommand(message.data(), static_cast<int>(message.size()));
    Bytes buffer(static_cast<std::size_t>(length), 5);
    EXPECT_EQ(failureOf([&] { sender->ReadResponse(buffer.data(), length); }),
              "Ostrelink Native Exception: Exception code 019. \nNo receiver of runtime Python is "
              "set up on the in-memory channel");
    buffer[0] = 200;
    EXPECT_THAT(failureOf([&] { sender->ReadResponse(buffer.data(), length); }),
                HasSubstr("Exception code 019"));
    buffer[0] = cpp;
    EXPECT_EQ(sender->ReadResponse(buffer.data(), length), 0);
    EXPECT_EQ(buffer, message);
}

TEST(InMemory, DeployRuntimeGoesToTheCalledRuntimesTransmitter) {
    ITransmitter* sender = stagedTransmitter();
    Bytes message = inMemoryMessage(cpp, jvm, "deploy");
    EXPECT_EQ(sender->DeployRuntime(message.data(), static_cast<int>(message.size()), "text", 3),
              1);
    EXPECT_EQ(ask(sender, "deployments"), (Bytes{1}));
}

// Deploying to runtime 2 in memory reaches this library's own transmitter, which would send the
// same message into the same channel again.
TEST(InMemory, DeployRuntimeBackToThisLibraryEndsTheChain) {
    ITransmitter* sender = stagedTransmitter();
    Bytes message = inMemoryMessage(jvm, cpp, "deploy");
    EXPECT_EQ(failureOf([&] {
                  sender->DeployRuntime(message.data(), static_cast<int>(message.size()), "", 0);
              }),
              "Ostrelink Native Exception: Exception code 028. \nDeployRuntime loops back to the "
              "transmitter that sent it");
    // The chain is over: the channel still serves.
    EXPECT_EQ(sendAndRead(sender, healthCheckMessage(jvm), jvm), acknowledgeBytes());
}

// A called library that misbehaves fails every message with its code, each time: a failed set-up
// is tried again by the next message.
class CalledHalfFailure : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(CalledHalfFailure, GivesItsCodeEveryTime) {
    ITransmitter* sender = transmitterOf(GetParam().first);
    Bytes message = inMemoryMessage(cpp, jvm, "hello");
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(failureOf([&] {
                      sender->SendCommand(message.data(), static_cast<int>(message.size()));
                  }),
                  std::string("Ostrelink Native Exception: Exception code ") + GetParam().second +
                      ". \nReinstall Ostrelink package");
    }
}

INSTANTIATE_TEST_SUITE_P(InMemoryFailures, CalledHalfFailure,
                         testing::Values(std::pair{"CppWithoutReceiver", "014"},
                                         std::pair{"CppNullFactories", "015"},
                                         std::pair{"CppWithoutTransmitter", "016"},
                                         std::pair{"CppNullTransmitter", "027"}),
                         [](const auto& info) { return std::string(info.param.first); });

// The receiver is stored before CreateTransmitter is looked for: a retry asks for no second one.
TEST(InMemoryFailures, WithoutCreateTransmitterTheReceiverIsMadeOnce) {
    ITransmitter* sender = transmitterOf("CppWithoutTransmitter");
    Bytes message = inMemoryMessage(cpp, jvm, "hello");
    for (int attempt = 0; attempt < 2; ++attempt) {
        failureOf([&] { sender->SendCommand(message.data(), static_cast<int>(message.size())); });
    }
    HostLibrary cppLibrary(
        installedFile("CppWithoutTransmitter", "libOstrelinkCppRuntimeNative.so"));
    IReceiver* cppReceiver =
        cppLibrary.get<CreateReceiverFn>("CreateReceiver")(RuntimeOperationMode::Called);
    // Receiver factory: once by the channel, once just now. Transmitter factory: never there.
    EXPECT_EQ(payloadOf(sendAndRead(cppReceiver, inMemoryMessage(cpp, jvm, "factories"))),
              (Bytes{1, 0xFE, 2, 0}));
}

// In the calling half every one of these failures is recorded and dropped: the sender's message
// still reaches this library's receiver.
class CallingHalfFailure : public testing::TestWithParam<const char*> {};

TEST_P(CallingHalfFailure, IsSilentAndTheMessageArrives) {
    ITransmitter* sender = transmitterOf(GetParam());
    Bytes check = healthCheckMessage(jvm);
    check[9] = cpp;
    EXPECT_EQ(sendAndRead(sender, check, jvm), acknowledgeBytes());
    EXPECT_EQ(sendAndRead(sender, check, jvm), acknowledgeBytes());
}

INSTANTIATE_TEST_SUITE_P(InMemoryFailures, CallingHalfFailure,
                         testing::Values("CppWithoutReceiver", "CppNullFactories",
                                         "CppWithoutTransmitter", "CppNullTransmitter"));

}  // namespace
