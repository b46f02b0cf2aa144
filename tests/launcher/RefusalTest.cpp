#include "LauncherTesting.h"

// What keeps a command from Java: a runtime jar without the receiver or one of its methods, a
// receiver that throws or answers null, no JVM to adopt or a mode that may not create one, and
// what the JVM or the checks before its start refuse. The text names the cause, the runtime
// info behind it has no managed part, the next command tries again and fails the same way, and
// a reply stored before stays.
struct Refusal {
    const char* name;
    std::string failure;        // how the text begins, behind "Exception code "
    std::size_t jvms;           // JVMs running afterwards
    const char* jar = "probe";  // the runtime jar of the copy; empty: none
    const char* variable = "";  // set to value, unless empty
    const char* value = "";
    RuntimeOperationMode mode = RuntimeOperationMode::Called;
    const char* prefix = "ostrelink-launcher-";
};
void PrintTo(const Refusal& row, std::ostream* out) {
    *out << row.name;
}
class Refused : public testing::TestWithParam<Refusal> {};

TEST_P(Refused, EveryCommandWithItsTextAndTheEarlierReplyStays) {
    const Refusal& row = GetParam();
    if (*row.variable != 0) {
        setenv(row.variable, row.value, 1);
    }
    const InstallationCopy copy(*row.jar != 0 ? testJar(row.jar) : "", row.prefix);
    IReceiver* receiver = copy.receiver(row.mode);
    Bytes healthCheck = healthCheckMessage();
    ASSERT_EQ(receiver->SendCommand(healthCheck.data(), static_cast<int>(healthCheck.size())), 17);
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(sendFailure(receiver, javaCommand("x")),
                    StartsWith("JVM Launcher: Exception code " + row.failure));
    }
    Bytes reply(17, 0);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), 17), 0);
    EXPECT_EQ(reply, acknowledgeBytes());
    EXPECT_EQ(runningJvms().size(), row.jvms);
}

const std::string reinstall = ". \nReinstall Ostrelink package\nRUNTIME INFO:\n\n" + nativeInfo;
const std::string noManagedPart = "\nRUNTIME INFO:\n\n" + nativeInfo;
const char* const options = "OSTRELINK_JVM_OPTIONS";

INSTANTIATE_TEST_SUITE_P(
    Launcher, Refused,
    testing::Values(
        Refusal{"NoReceiverClass", "022" + reinstall, 1, ""},
        Refusal{"NoSendCommand", "024" + reinstall, 1, "lacking-sendCommand"},
        Refusal{"NoHeartBeat", "025" + reinstall, 1, "lacking-heartBeat"},
        Refusal{"NoRuntimeInfo", "026" + reinstall, 1, "lacking-getRuntimeInfo"},
        Refusal{"JavaException", "055. JVM exception occurred" + noManagedPart, 1, "probe", options,
                "-Dprobe.info=throw"},
        Refusal{"NullReply", "056. Null response from JVM" + noManagedPart, 1, "probe", options,
                "-Dprobe.info=null"},
        Refusal{"NoJvmToAdopt", "050. JVM not initialized" + noManagedPart, 0, "probe", "", "",
                RuntimeOperationMode::Calling},
        Refusal{"AModeThatMayNotCreate",
                "020. Cannot get m_JvmEnv.\nReinstall Ostrelink package\nRUNTIME INFO:\n", 0,
                "probe", "", "", static_cast<RuntimeOperationMode>(7)},
        Refusal{"OptionRejectedByTheJvm", "036" + noManagedPart, 0, "probe", "JAVA_TOOL_OPTIONS",
                "-Xcheck:jni -XX:+NoSuchOptionForThisTest"},
        Refusal{"UsersOptionRejectedByTheJvm",
                "031\nJVM options from OSTRELINK_JVM_OPTIONS: [-Xfoo] [-Dx=a b]" + noManagedPart, 0,
                "probe", options, "-Xfoo -Dx='a b'"},
        Refusal{"UnclosedQuote",
                "046. OSTRELINK_JVM_OPTIONS has a quote that is not closed: -ea '-Dx=open\n", 0,
                "probe", options, "-ea '-Dx=open"},
        Refusal{"ClassPathOption", "045. OSTRELINK_JVM_OPTIONS may not hold -cp:", 0, "probe",
                options, "-ea -cp /elsewhere"},
        Refusal{"ColonInTheInstallationPath", "048. The installation path holds ':'", 0, "probe",
                "", "", RuntimeOperationMode::Called, "ostrelink:launcher-"}),
    [](const testing::TestParamInfo<Refusal>& row) { return std::string(row.param.name); });
