// The channels as objects, for what only a holder of a channel can reach: heartbeats, a channel
// that is destroyed, and a network channel used before its Initialize. The channel sources are
// compiled into this test, which runs from the native directory of an installation of its own,
// so the channel finds the staged siblings beside it.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

// The library's own headers, not the installed copies: the two must not meet in one unit.
#include "common/Calls.h"
#include "common/StageCopy.h"
#include "contracts/RuntimeFactories.h"
#include "transport/TransportInMemory.h"
#include "transport/TransportNetwork.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Transport::TransportInMemory;
using Ostrelink::Native::Transport::TransportNetwork;
using testing::StartsWith;

namespace {

constexpr unsigned char jvm = 2;
constexpr unsigned char cpp = 8;

std::string cppPath() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string() +
           "/libOstrelinkCppRuntimeNative.so";
}

bool cppLoaded() {
    void* handle = dlopen(cppPath().c_str(), RTLD_NOW | RTLD_NOLOAD);
    return handle != nullptr && dlclose(handle) == 0;
}

Bytes ask(TransportInMemory& channel, const std::string& query) {
    return payloadOf(sendAndRead(&channel, makeMessage(cpp, 0, query, jvm), cpp));
}

// A heartbeat carries the version to the called runtime, zero to the calling one;
// SetEmbeddedRuntime passes the version it is given. One library, opened once; the called half
// made both objects with mode 1.
TEST(ChannelUnit, HeartBeatsAndTheEmbeddedRuntimeReachTheCppRuntime) {
    TransportInMemory channel;
    EXPECT_FALSE(cppLoaded());
    channel.Initialize(jvm, cpp, 3);
    testing::internal::CaptureStdout();
    channel.SendHeartBeatToCalledRuntime();
    EXPECT_EQ(ask(channel, "heartbeat"), (Bytes{cpp, 3, 0, 0, 0, 0, 0, 0, 0, jvm, 11, 0x31, 0x32}));
    EXPECT_EQ(ask(channel, "factories"), (Bytes{1, 1, 1, 1}));
    EXPECT_EQ(channel.SetEmbeddedRuntime(9, 9, 6, "/srv"), 1);
    EXPECT_EQ(ask(channel, "embedded"), (Bytes{6, '/', 's', 'r', 'v'}));
    TransportInMemory both;
    both.Initialize(cpp, cpp, 5);
    both.SendHeartBeatToCallingRuntime();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "SendHeartBeatToCalledRuntime\nSendHeartBeatToCallingRuntime\n");
    EXPECT_EQ(ask(both, "heartbeat"), (Bytes{cpp, 0, 0, 0, 0, 0, 0, 0, 0, cpp, 11, 0x31, 0x32}));
}

// Every road through an empty entry gives 019 and loads nothing; a network channel before its
// Initialize gives 013. The channel's objects are the sibling library's own singletons:
// destroying the channel must leave them, and the library, alive for whoever else holds them.
// The test holds no handle of its own, so only the channel's keeps the library loaded.
TEST(ChannelUnit, EmptyEntriesThenADestroyedChannelLeavesTheSiblingsObjectsAlive) {
    Bytes hello = makeMessage(cpp, 0, "hello", jvm);
    {
        TransportInMemory channel;
        TransportNetwork network("127.0.0.1", 9000);
        const std::pair<std::function<void()>, const char*> failures[] = {
            {[&] { channel.SendCommand(hello.data(), 29); },
             "019. \nNo receiver of runtime Cpp is set up on the in-memory channel"},
            {[&] { channel.SendHeartBeatToCalledRuntime(); },
             "019. \nNo receiver of runtime Unknown"},
            {[&] { channel.DeployRuntime(hello.data(), 29, "", 0); },
             "019. \nNo transmitter of runtime Unknown"},
            {[&] { network.SendCommand(hello.data(), 29); }, "013. \nReinstall Ostrelink package"},
            {[&] { network.ReadResponse(hello.data(), 29); }, "013. \nReinstall Ostrelink package"},
        };
        for (const auto& [call, text] : failures) {
            EXPECT_THAT(
                failureOf(call),
                StartsWith(std::string("Ostrelink Native Exception: Exception code ") + text));
        }
        EXPECT_FALSE(cppLoaded());
    }
    IReceiver* cppReceiver = nullptr;
    {
        TransportInMemory channel;
        channel.Initialize(jvm, cpp, 0);
        EXPECT_EQ(ask(channel, "runtimes"), (Bytes{jvm, cpp, 0, 1}));
        void* loaded = dlopen(cppPath().c_str(), RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(loaded, nullptr);
        cppReceiver = reinterpret_cast<CreateReceiverFn>(dlsym(loaded, "CreateReceiver"))(
            RuntimeOperationMode::Called);
        dlclose(loaded);
    }
    ASSERT_TRUE(cppLoaded());
    EXPECT_EQ(payloadOf(sendAndRead(cppReceiver, makeMessage(cpp, 0, "runtimes", jvm))),
              (Bytes{jvm, cpp, 0, 1}));
}

}  // namespace

// The channel finds its siblings beside its own file, here this executable: the test runs from
// the native directory of a copy of the staged tree made for this process, and removes it.
int main(int argc, char** argv) {
    const char* copy = std::getenv("CHANNEL_UNIT_COPY");
    if (copy == nullptr) {
        std::string directory = std::filesystem::temp_directory_path() / "channel-unit-XXXXXX";
        if (mkdtemp(directory.data()) == nullptr) {
            return 1;
        }
        const std::string self =
            copyStage(directory, {}, {{"channel_unit_tests", "/proc/self/exe"}}) +
            "channel_unit_tests";
        setenv("CHANNEL_UNIT_COPY", directory.c_str(), 1);
        argv[0] = const_cast<char*>(self.c_str());  // dladdr names the program by its argv[0]
        execv(self.c_str(), argv);
        return 127;
    }
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    std::filesystem::remove_all(copy);
    return status;
}
