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
    const char* value = "";     // of variable, set unless empty
    const char* jar = "probe";  // the runtime jar of the copy; empty: none
    RuntimeOperationMode mode = RuntimeOperationMode::Called;
    const char* variable = "OSTRELINK_JVM_OPTIONS";
    const char* prefix = "ostrelink-launcher-";
    bool debugMode = false;
};
void PrintTo(const Refusal& row, std::ostream* out) {
    *out << row.name;
}
class Refused : public testing::TestWithParam<Refusal> {};

TEST_P(Refused, EveryCommandWithItsTextAndTheEarlierReplyStays) {
    const Refusal& row = GetParam();
    if (*row.value != 0) {
        setenv(row.variable, row.value, 1);
    }
    if (row.debugMode) {
        setenv("OSTRELINK_DEBUG_MODE", "true", 1);
    }
    const InstallationCopy copy(*row.jar != 0 ? testJar(row.jar) : "", row.prefix);
    IReceiver* receiver = copy.receiver(row.mode);
    ASSERT_EQ(send(receiver, healthCheckMessage()), 17);
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(sendFailure(receiver, javaCommand("x")),
                    testing::AllOf(StartsWith("JVM Launcher: Exception code " + row.failure),
                                   testing::EndsWith("\nRUNTIME INFO:\n\n" + nativeInfo)));
    }
    Bytes reply(17, 0);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), 17), 0);
    EXPECT_EQ(reply, acknowledgeBytes());
    EXPECT_EQ(runningJvms().size(), row.jvms);
}

const std::string reinstall = ". \nReinstall Ostrelink package\n";
const std::string gaveUp =
    "037. The JVM gave up its start, which would have ended the process; its own message is on "
    "standard error\nJVM options from OSTRELINK_JVM_OPTIONS: ";
const Refusal rows[] = {
    {"NoReceiverClass", "022" + reinstall, 1, "", ""},
    {"NoSendCommand", "024" + reinstall, 1, "", "lacking-sendCommand"},
    {"NoHeartBeat", "025" + reinstall, 1, "", "lacking-heartBeat"},
    {"NoRuntimeInfo", "026" + reinstall, 1, "", "lacking-getRuntimeInfo"},
    {"JavaException", "055. JVM exception occurred\n", 1, "-Dprobe.info=throw"},
    {"NullReply", "056. Null response from JVM\n", 1, "-Dprobe.info=null"},
    {"NoJvmToAdopt", "050. JVM not initialized\n", 0, "", "probe", RuntimeOperationMode::Calling},
    {"AModeThatMayNotCreate", "020. Cannot get m_JvmEnv." + reinstall.substr(2), 0, "", "probe",
     RuntimeOperationMode(7)},
    {"OptionRejectedByTheJvm", "036\n", 0, "-Xcheck:jni -XX:+NoSuchOptionForThisTest", "probe",
     RuntimeOperationMode::Called, "JAVA_TOOL_OPTIONS"},
    {"UsersOptionRejectedByTheJvm",
     "031\nJVM options from OSTRELINK_JVM_OPTIONS: [-Xfoo] [-Dx=a b]\nThe JVM said: Unrecognized "
     "option: -Xfoo\n",
     0, "-Xfoo -Dx='a b'"},
    // The JVM would end the process here: it lives on, and the JVM is not touched again.
    {"OptionsThatTheJvmGivesUpOn",
     gaveUp + "[-Xms2g] [-Xmx1g]\nThe JVM said: Initial heap size set to a larger value than the "
              "maximum heap size\n",
     0, "-Xms2g -Xmx1g"},
    {"AnAgentThatTheJvmGivesUpOn",
     gaveUp + "[-agentlib:nosuchagent]\nThe JVM said: Could not find agent library nosuchagent", 0,
     "-agentlib:nosuchagent"},
    {"UnclosedQuote", "046. OSTRELINK_JVM_OPTIONS has a quote that is not closed: -ea '-Dx=open\n",
     0, "-ea '-Dx=open"},
    {"ClassPathOption", "045. OSTRELINK_JVM_OPTIONS may not hold -cp:", 0, "-ea -cp /elsewhere"},
    {"ClassPathInAnOptionsFile",
     "045. OSTRELINK_JVM_OPTIONS may not hold -Djava.class.path=/elsewhere "
     "(in " OSTRELINK_TEST_JAR_DIR "class-path.options):",
     0, "-XX:VMOptionsFile=" OSTRELINK_TEST_JAR_DIR "class-path.options"},
    {"SecondDebuggerByItsPath",
     "045. OSTRELINK_JVM_OPTIONS may not hold -agentpath:" OSTRELINK_JAVA_HOME "/lib/libjdwp.so=",
     0, "-agentpath:" OSTRELINK_JAVA_HOME "/lib/libjdwp.so=transport=dt_socket,address=8989",
     "probe", RuntimeOperationMode::Called, "OSTRELINK_JVM_OPTIONS", "ostrelink-launcher-", true},
    {"ClassPathInTheJvmsOwnVariable",
     "067. _JAVA_OPTIONS holds -Djava.class.path=/elsewhere, which the JVM reads too", 0,
     "-Djava.class.path=/elsewhere", "probe", RuntimeOperationMode::Called, "_JAVA_OPTIONS"},
    {"ColonInTheInstallationPath", "048. The installation path holds ':'", 0, "", "probe",
     RuntimeOperationMode::Called, "", "ostrelink:launcher-"},
};
INSTANTIATE_TEST_SUITE_P(Launcher, Refused, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });
