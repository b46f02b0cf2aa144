#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "LauncherTesting.h"

using testing::StartsWith;

namespace {

// What keeps a command from Java: a runtime jar without the receiver or one of its methods, a
// receiver that throws or answers null, no JVM to adopt or a mode that may not create one, and
// what the JVM or the checks before its start refuse. The text names the cause, the runtime
// info behind it has no managed part, the next command tries again and fails the same way, and
// a reply stored before stays.
struct Refusal {
    const char* name;
    const char* jar;  // the runtime jar of the copy; empty: none
    RuntimeOperationMode mode;
    const char* variable;  // set to value, unless null
    const char* value;
    const char* payload;
    std::string failure;  // how the text begins
    std::size_t jvms;     // JVMs running afterwards
    const char* prefix = "ostrelink-launcher-";
};
void PrintTo(const Refusal& row, std::ostream* out) {
    *out << row.name;
}
class Refused : public testing::TestWithParam<Refusal> {};

TEST_P(Refused, EveryCommandWithItsTextAndTheEarlierReplyStays) {
    const Refusal& row = GetParam();
    if (row.variable != nullptr) {
        setEnvironment(row.variable, row.value);
    }
    const InstallationCopy copy(*row.jar != 0 ? testJar(row.jar) : "", row.prefix);
    IReceiver* receiver = copy.receiver(row.mode);
    Bytes healthCheck = healthCheckMessage();
    ASSERT_EQ(receiver->SendCommand(healthCheck.data(), static_cast<int>(healthCheck.size())), 17);
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(sendFailure(receiver, javaCommand(row.payload)),
                    StartsWith("JVM Launcher: Exception code " + row.failure));
    }
    Bytes reply(17, 0);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), 17), 0);
    EXPECT_EQ(reply, acknowledgeBytes());
    EXPECT_EQ(runningJvms().size(), row.jvms);
}

const RuntimeOperationMode called = RuntimeOperationMode::Called;
const std::string reinstall = ". \nReinstall Ostrelink package\nRUNTIME INFO:\n\n" + nativeInfo();
const std::string noManagedPart = "\nRUNTIME INFO:\n\n" + nativeInfo();
const char* const options = "OSTRELINK_JVM_OPTIONS";

INSTANTIATE_TEST_SUITE_P(
    Launcher, Refused,
    testing::Values(
        Refusal{"NoReceiverClass", "", called, nullptr, "", "x", "022" + reinstall, 1},
        Refusal{"NoSendCommand", "lacking-sendCommand", called, nullptr, "", "x", "024" + reinstall,
                1},
        Refusal{"NoHeartBeat", "lacking-heartBeat", called, nullptr, "", "x", "025" + reinstall, 1},
        Refusal{"NoRuntimeInfo", "lacking-getRuntimeInfo", called, nullptr, "", "x",
                "026" + reinstall, 1},
        Refusal{"JavaException", "probe", called, options, "-Dprobe.info=throw", "throw",
                "055. JVM exception occurred" + noManagedPart, 1},
        Refusal{"NullReply", "probe", called, options, "-Dprobe.info=null", "null",
                "056. Null response from JVM" + noManagedPart, 1},
        Refusal{"NoJvmToAdopt", "probe", RuntimeOperationMode::Calling, nullptr, "", "x",
                "050. JVM not initialized" + noManagedPart, 0},
        Refusal{"AModeThatMayNotCreate", "probe", static_cast<RuntimeOperationMode>(7), nullptr, "",
                "x", "020. Cannot get m_JvmEnv.\nReinstall Ostrelink package\nRUNTIME INFO:\n", 0},
        Refusal{"OptionRejectedByTheJvm", "probe", called, "JAVA_TOOL_OPTIONS",
                "-Xcheck:jni -XX:+NoSuchOptionForThisTest", "x", "036" + noManagedPart, 0},
        Refusal{"UsersOptionRejectedByTheJvm", "probe", called, options,
                "-Xfoo -Dprobe.value='a b'", "x",
                "031\nJVM options from OSTRELINK_JVM_OPTIONS: [-Xfoo] [-Dprobe.value=a b]" +
                    noManagedPart,
                0},
        Refusal{"UnclosedQuote", "probe", called, options, "-ea '-Dx=open", "x",
                "046. OSTRELINK_JVM_OPTIONS has a quote that is not closed: -ea '-Dx=open\n", 0},
        Refusal{"ClassPathOption", "probe", called, options, "-ea -cp /elsewhere", "x",
                "045. OSTRELINK_JVM_OPTIONS may not hold -cp:", 0},
        Refusal{"ColonInTheInstallationPath", "probe", called, nullptr, "", "x",
                "048. The installation path holds ':'", 0, "ostrelink:launcher-"}),
    [](const testing::TestParamInfo<Refusal>& row) { return std::string(row.param.name); });

}  // namespace
