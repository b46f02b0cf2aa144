// ostrelink-host (and, for the JVM search, ostrelink-stress) of the staged tree, run as a child
// process the way a user runs it. Each table row is one run: its status, what it printed on
// standard output and what on standard error.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/ChildProcess.h"
#include "common/StageCopy.h"
#include "common/TemporaryDirectory.h"

using testing::_;
using testing::AllOf;
using testing::ContainsRegex;
using testing::Eq;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace fs = std::filesystem;

namespace {

const std::string targets = "com.ostrelink.tests.host.HostTargets";

struct ToolCase {
    std::vector<std::string> arguments;
    int status;
    testing::Matcher<std::string> out;
    testing::Matcher<std::string> err;
    EnvironmentChanges environment;
    std::string tool;
};

ToolCase run(std::vector<std::string> arguments, int status, testing::Matcher<std::string> out,
             testing::Matcher<std::string> err, EnvironmentChanges environment = {},
             std::string tool = HOST_TOOL) {
    return {std::move(arguments),   status,         std::move(out), std::move(err),
            std::move(environment), std::move(tool)};
}

// A usage error: its line and the hint, on standard error only.
ToolCase refused(std::vector<std::string> arguments, const std::string& text) {
    return run(std::move(arguments), 2, Eq(""),
               HasSubstr("ostrelink-host: " + text + "\nTry 'ostrelink-host --help'.\n"));
}

// A failure of the library: its text on standard error, no result.
ToolCase failed(std::vector<std::string> arguments, const std::string& text) {
    return run(std::move(arguments), 1, Eq(""), HasSubstr("ostrelink-host: " + text));
}

class HostTool : public testing::Test {
protected:
    void expect(const std::vector<ToolCase>& cases) {
        for (const ToolCase& row : cases) {
            EnvironmentChanges changes = row.environment;
            changes.emplace("JAVA_HOME", HOST_JAVA_HOME);
            for (const char* name : {"OSTRELINK_JVM_RUNTIME_PATH", "OSTRELINK_DEBUG_MODE",
                                     "OSTRELINK_LOGGING_LEVEL", "OSTRELINK_JVM_OPTIONS"}) {
                changes.emplace(name, std::nullopt);
            }
            const ChildRun done = runChild(row.tool, row.arguments, changes, directory());
            SCOPED_TRACE(testing::PrintToString(row.arguments) + "\n" + done.out + done.err);
            EXPECT_EQ(done.status, row.status);
            EXPECT_THAT(done.out, row.out);
            EXPECT_THAT(done.err, row.err);
        }
    }

    const std::string& directory() const { return m_directory.path(); }

private:
    const TemporaryDirectory m_directory;
};

TEST_F(HostTool, CommandLinesThatStartNoJvm) {
    const fs::path staged = fs::path(OSTRELINK_NATIVE_DIR) / "libOstrelinkJvmRuntimeNative.so";
    const std::string configs = (staged.parent_path() / "libConfigs.so").string();
    const EnvironmentChanges noJava = {{"JAVA_HOME", std::nullopt}, {"PATH", "/nonexistent"}};
    expect({
        refused({}, "no command given"),
        refused({"bogus"}, "unknown command 'bogus'"),
        refused({"--frob", "health"}, "unknown option '--frob'"),
        refused({"--library"}, "--library needs the path of the runtime library"),
        refused({"health", "call", targets}, "call needs a class name and a method name"),
        refused({"load", "health"}, "load needs at least one jar file or directory"),
        refused({"echo"}, "echo needs a text"),
        refused({"health", "doctor"}, "doctor runs alone: give it without other commands"),
        refused({"health", "info", "load", "b.jar"},
                "load b.jar comes after info, which started the JVM: its class path can't change "
                "any more; give load before the first call, echo or info"),
        // Help does not open the library.
        run({"--library", "/no/such/library.so", "--help"}, 0, HasSubstr("doctor"), _),
        run({"--library", staged.string(), "health"}, 0, Eq("health: ok\n"), _),
        failed({"--library", "/no/such/library.so", "health"},
               "cannot open the runtime library /no/such/library.so: "),
        failed({"--library", configs, "health"},
               "the runtime library " + configs + " does not export CreateReceiver\n"),
        failed({"load", "/no/such.jar", "health"},
               "JVM Launcher: Exception code 004. \nCannot find file: /no/such.jar\n"),
        run({"health"}, 1, Eq(""),
            AllOf(HasSubstr("ostrelink-host: JVM Launcher: Exception code 001. \nSet JAVA_HOME "
                            "environment variable"),
                  Not(HasSubstr("JAVA_HOME is not set; using"))),
            noJava),
    });
}

// Standard output holds the results, one line each, in order, and nothing else.
TEST_F(HostTool, CommandsThatRunJava) {
    const std::string jar = HOST_TARGETS_JAR;
    const std::vector<std::string> commands = {"load",        jar,
                                               "health",      "echo",
                                               "two words",   "call",
                                               targets,       "join",
                                               "a",           "b",
                                               "call",        "java.lang.System",
                                               "getProperty", "java.version",
                                               "info",        "call",
                                               targets,       "join",
                                               "--",          "info",
                                               "echo"};
    expect({
        run(commands, 0,
            MatchesRegex("load: " + jar +
                         "\nhealth: ok\necho: two words\ncall: a\\+b\ncall: 17\\.[0-9.]+\ninfo:\n"
                         "java\\.version: 17\\.[0-9.]+\n.*\njava\\.home: " HOST_JAVA_HOME
                         "\n.*/Binaries/Jvm/OstrelinkJvmRuntime\\.jar:" +
                         jar + "\ncall: info\\+echo\n"),
            AllOf(HasSubstr("JVM Native Launcher Runtime Info"),
                  Not(ContainsRegex("(^|\n)ostrelink-host: ")))),
        run({"load", jar, "health", "call", targets, "fail", "x", "echo", "never"}, 1,
            Eq("load: " + jar + "\nhealth: ok\n"),
            HasSubstr("ostrelink-host: java.lang.IllegalStateException: broken on purpose: x\n")),
        // A start that fails leaves no part of a line.
        run({"echo", "never"}, 1, Eq(""), HasSubstr("The JVM said: Too small maximum heap"),
            {{"OSTRELINK_JVM_OPTIONS", "-Xmx1k"}}),
        run({"info"}, 1, Eq(""), HasSubstr("The JVM said: Too small maximum heap"),
            {{"OSTRELINK_JVM_OPTIONS", "-Xmx1k"}}),
    });
}

// Every tool that starts a JVM, with JAVA_HOME unset or empty, and a runtime path of its own.
TEST_F(HostTool, WithoutJavaHomeTheJdkOfJavaOnPathIsUsedThroughItsLinks) {
    const std::string path = directory() + "/path";
    fs::create_directories(path);
    fs::create_symlink(fs::path(HOST_JAVA_HOME) / "bin/java", path + "/java");
    const std::string jvm = std::string(HOST_JAVA_HOME) + "/lib/server/libjvm.so";
    const std::vector<std::string> javaHome = {"call", "java.lang.System", "getProperty",
                                               "java.home"};
    std::vector<ToolCase> cases;
    for (const std::optional<std::string>& unset : {std::optional<std::string>(), {""}}) {
        for (const std::string tool : {"ostrelink-host", "ostrelink-stress"}) {
            const bool host = tool == "ostrelink-host";
            cases.push_back(run(
                host ? javaHome
                     : std::vector<std::string>{"--threads", "1", "--commands", "10",
                                                "--no-network"},
                0, host ? Eq("call: " HOST_JAVA_HOME "\n") : testing::Matcher<std::string>(_),
                HasSubstr(tool + ": JAVA_HOME is not set; using " HOST_JAVA_HOME ", the JDK of " +
                          path + "/java on PATH\n"),
                {{"JAVA_HOME", unset}, {"PATH", path}}, host ? HOST_TOOL : STRESS_TOOL));
        }
    }
    cases.push_back(
        run({"health", "call", "java.lang.System", "getProperty", "java.version"}, 0,
            MatchesRegex("health: ok\ncall: 17\\.[0-9.]+\n"),
            AllOf(HasSubstr("Looking for JVM runtime in OSTRELINK_JVM_RUNTIME_PATH environment "
                            "variable: " +
                            jvm + "\n"),
                  Not(HasSubstr("JAVA_HOME is not set"))),
            {{"JAVA_HOME", std::nullopt}, {"OSTRELINK_JVM_RUNTIME_PATH", jvm}, {"PATH", path}}));
    expect(cases);
}

// A good installation passes every check; a broken one stops at its first problem, says what
// to do, and exits 1.
TEST_F(HostTool, TheDoctorNamesEachCheckOrTheFirstProblemAndItsFix) {
    fs::create_directories(directory() + "/jre/lib");  // a JRE without the server VM
    copyStage(directory());
    fs::remove(directory() + "/stage/Binaries/Jvm/OstrelinkJvmRuntime.jar");
    fs::create_symlink("loop", directory() + "/loop");
    const std::string jarDirectory = directory() + "/jar-directory";
    fs::create_directories(jarDirectory);
    copyStage(jarDirectory);
    fs::remove(jarDirectory + "/stage/Binaries/Jvm/OstrelinkJvmRuntime.jar");
    fs::create_directory(jarDirectory + "/stage/Binaries/Jvm/OstrelinkJvmRuntime.jar");
    // Stops before notReached: what failed, and what to do.
    const auto problem = [](const std::string& text, const std::string& fix,
                            const std::string& notReached, EnvironmentChanges environment,
                            std::string tool = HOST_TOOL) {
        return run({"doctor"}, 1,
                   AllOf(ContainsRegex("doctor: problem: [^\n]*" + text),
                         ContainsRegex("doctor: fix: [^\n]*" + fix),
                         Not(HasSubstr("doctor: " + notReached))),
                   _, std::move(environment), std::move(tool));
    };
    expect({
        run({"doctor"}, 0,
            AllOf(HasSubstr("doctor: JVM source: JAVA_HOME = " HOST_JAVA_HOME "\n"),
                  HasSubstr("doctor: libjvm candidate: " HOST_JAVA_HOME
                            "/lib/server/libjvm.so: exists, loads, exports JNI_GetCreatedJavaVMs "
                            "and JNI_CreateJavaVM, used\n"),
                  HasSubstr("doctor: working directory: " + directory() + "\n"),
                  HasSubstr("doctor: JVM options (OSTRELINK_JVM_OPTIONS): none\n"),
                  HasSubstr("doctor: echo: ok, round trip "),
                  HasSubstr("doctor: all checks passed\n")),
            _),
        problem("code 001", "set JAVA_HOME to", "health check",
                {{"JAVA_HOME", std::nullopt}, {"PATH", "/nonexistent"}}),
        problem("code 002", "which does not exist", "health check",
                {{"JAVA_HOME", directory() + "/nowhere"}}),
        problem("code 002", "a JRE without the server VM", "health check",
                {{"JAVA_HOME", directory() + "/jre"}}),
        problem("code 002", "JAVA_HOME names [^\n]*/loop, which is a loop of symbolic links",
                "health check", {{"JAVA_HOME", directory() + "/loop"}}),
        problem("OstrelinkJvmRuntime.jar is missing", "reinstall", "health check", {},
                directory() + "/stage/bin/ostrelink-host"),
        problem("OstrelinkJvmRuntime.jar is a directory, not a jar", "reinstall", "health check",
                {}, jarDirectory + "/stage/bin/ostrelink-host"),
        // A bad JVM option passes the health check and stops the start.
        problem("code 031.*-Xfoo", "fix or drop -Xfoo in OSTRELINK_JVM_OPTIONS", "echo",
                {{"OSTRELINK_JVM_OPTIONS", "-Xfoo"}}),
        // The JVM would have ended the doctor: it names the options and the JVM's reason.
        problem("code 037.*Initial heap size set to a larger value than the maximum heap size",
                "fix or drop -Xms2g and -Xmx1g in OSTRELINK_JVM_OPTIONS \\(the JVM said: Initial",
                "echo", {{"OSTRELINK_JVM_OPTIONS", "-Dx=1 -Xms2g -Xmx1g"}}),
        problem("code 037", "fix or drop -agentlib:nosuchagent in", "echo",
                {{"OSTRELINK_JVM_OPTIONS", "-ea -agentlib:nosuchagent"}}),
        // Debug mode is said on standard output before the start, which waits for a debugger.
        run({"doctor"}, 1,
            ContainsRegex("doctor: health check: ok\ndoctor: JVM start: debug mode [^\n]*waits for "
                          "a debugger on 127.0.0.1:8988[^\n]*unset OSTRELINK_DEBUG_MODE[^\n]*\n"
                          "doctor: problem: [^\n]*code 045"),
            _, {{"OSTRELINK_DEBUG_MODE", "true"}, {"OSTRELINK_JVM_OPTIONS", "-cp /x"}}),
        problem("code 045", "OSTRELINK_JVM_OPTIONS", "echo", {{"OSTRELINK_JVM_OPTIONS", "-cp /x"}}),
        problem("code 046", "OSTRELINK_JVM_OPTIONS", "echo", {{"OSTRELINK_JVM_OPTIONS", "'open"}}),
    });
}

}  // namespace
