// ostrelink-host of the staged tree, run as a child process the way a user runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "common/ChildProcess.h"
#include "common/StageCopy.h"

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

namespace {

const std::string targets = "com.ostrelink.tests.host.HostTargets";

// The JDK's version as its release file states it, e.g. 17.0.15.
std::string jdkVersion() {
    std::ifstream release(std::string(HOST_JAVA_HOME) + "/release");
    std::string line;
    while (std::getline(release, line)) {
        if (line.rfind("JAVA_VERSION=\"", 0) == 0) {
            return line.substr(14, line.size() - 15);
        }
    }
    return "no JAVA_VERSION in the JDK's release file";
}

// The lines of a text that begin with one of the tool's result prefixes, in order.
std::vector<std::string> resultLines(const std::string& text) {
    static const std::regex result("^(health|load|call|echo|info):.*");
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        if (std::regex_match(line, result)) {
            lines.push_back(line);
        }
    }
    return lines;
}

// The tool's own lines of its standard error; a sanitizer build adds reports of its own there.
std::string ownLines(const std::string& err, const std::string& tool = "ostrelink-host") {
    std::string lines;
    std::istringstream stream(err);
    std::string line;
    while (std::getline(stream, line)) {
        if (line.rfind(tool + ": ", 0) == 0 || line.rfind("Try '" + tool, 0) == 0) {
            lines += line + "\n";
        }
    }
    return lines;
}

class HostTool : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "ostrelink-host-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern;
    }

    void TearDown() override { fs::remove_all(directory); }

    ChildRun run(const std::vector<std::string>& arguments,
                 std::map<std::string, std::optional<std::string>> changes = {},
                 const std::string& tool = HOST_TOOL) {
        changes.emplace("JAVA_HOME", HOST_JAVA_HOME);
        changes.emplace("OSTRELINK_JVM_RUNTIME_PATH", std::nullopt);
        changes.emplace("OSTRELINK_DEBUG_MODE", std::nullopt);
        changes.emplace("OSTRELINK_LOGGING_LEVEL", std::nullopt);
        changes.emplace("OSTRELINK_JVM_OPTIONS", std::nullopt);
        return runChild(tool, arguments, changes, directory.string());
    }

    // A directory for PATH that holds only a link named java to the JDK's launcher.
    std::string pathWithJavaLink() {
        const fs::path bin = directory / "path";
        fs::create_directories(bin);
        fs::create_symlink(fs::path(HOST_JAVA_HOME) / "bin/java", bin / "java");
        return bin.string();
    }

    fs::path directory;
};

TEST_F(HostTool, HelpNamesEveryCommandAndVariableWithoutOpeningTheLibrary) {
    const ChildRun help = run({"--library", "/no/such/library.so", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"health", "load PATH", "call CLASS METHOD", "echo TEXT", "info",
                             "doctor", "--library PATH", "JAVA_HOME", "OSTRELINK_JVM_RUNTIME_PATH",
                             "OSTRELINK_DEBUG_MODE", "OSTRELINK_LOGGING_LEVEL"}) {
        EXPECT_THAT(help.out, HasSubstr(word));
    }
    EXPECT_EQ(ownLines(help.err), "");
}

TEST_F(HostTool, CommandLinesThatCantRunExitWithTwoBeforeAnythingStarts) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command given"},
        {{"bogus"}, "unknown command 'bogus'"},
        {{"--frob", "health"}, "unknown option '--frob'"},
        {{"--library"}, "--library needs the path of the runtime library"},
        {{"health", "call", targets}, "call needs a class name and a method name"},
        {{"load", "health"}, "load needs at least one jar file or directory"},
        {{"echo"}, "echo needs a text"},
        {{"health", "doctor"}, "doctor runs alone: give it without other commands"},
        {{"health", "info", "load", "b.jar"},
         "load b.jar comes after info, which started the JVM: its class path can't change any "
         "more; give load before the first call, echo or info"},
    };
    for (const auto& [arguments, text] : cases) {
        const ChildRun refused = run(arguments);
        EXPECT_EQ(refused.status, 2) << text;
        EXPECT_EQ(ownLines(refused.err),
                  "ostrelink-host: " + text + "\nTry 'ostrelink-host --help'.\n");
        EXPECT_EQ(refused.out, "");
    }
}

TEST_F(HostTool, CommandsRunInOrderAndPrintOneResultLineEach) {
    const ChildRun done = run({"health", "echo", "two words", "call", "java.lang.System",
                               "getProperty", "java.version", "info"});
    ASSERT_EQ(done.status, 0) << done.err;
    const std::vector<std::string> expected = {"health: ok", "echo: two words",
                                               "call: " + jdkVersion(), "info:"};
    EXPECT_EQ(resultLines(done.out), expected);
    EXPECT_THAT(done.out, AllOf(HasSubstr("info:\njava.version: " + jdkVersion() + "\n"),
                                HasSubstr("\njava.home: " HOST_JAVA_HOME "\n"),
                                HasSubstr("/Binaries/Jvm/OstrelinkJvmRuntime.jar\n")));
    EXPECT_EQ(ownLines(done.err), "");
}

TEST_F(HostTool, LoadedJarsAreOnTheClassPathOfTheCall) {
    const ChildRun done = run({"load", HOST_TARGETS_JAR, "call", targets, "join", "a", "b", "call",
                               targets, "greeting", "call", targets, "join", "--", "info", "echo"});
    ASSERT_EQ(done.status, 0) << done.err;
    const std::vector<std::string> expected = {"load: " HOST_TARGETS_JAR, "call: a+b",
                                               "call: hello", "call: info+echo"};
    EXPECT_EQ(resultLines(done.out), expected);
}

TEST_F(HostTool, AJavaFailureEndsTheRunWithTheExceptionOnStandardError) {
    const ChildRun missing = run({"health", "call", "no.such.Type", "m", "echo", "never"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(resultLines(missing.out), std::vector<std::string>{"health: ok"});
    EXPECT_THAT(missing.err, HasSubstr("ostrelink-host: java.lang.ClassNotFoundException: "
                                       "no.such.Type\n"));

    const ChildRun thrown = run({"load", HOST_TARGETS_JAR, "call", targets, "fail", "x"});
    EXPECT_EQ(thrown.status, 1);
    EXPECT_THAT(thrown.err, HasSubstr("ostrelink-host: java.lang.IllegalStateException: broken "
                                      "on purpose: x\n"));
}

TEST_F(HostTool, ALibraryFailurePrintsTheLibrarysOwnText) {
    const ChildRun missing = run({"load", "/no/such.jar", "health"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("ostrelink-host: JVM Launcher: Exception code 004. \n"
                                       "Cannot find file: /no/such.jar\n"));
    EXPECT_THAT(missing.out, Not(HasSubstr("health: ok")));
}

TEST_F(HostTool, AJavaHomeWithoutJvmGivesCode002) {
    fs::create_directories(directory / "empty");
    const ChildRun done =
        run({"health"}, {{"JAVA_HOME", (directory / "empty").string()}, {"PATH", "/nonexistent"}});
    EXPECT_EQ(done.status, 1);
    EXPECT_THAT(done.err, HasSubstr("ostrelink-host: JVM Launcher: Exception code 002. \nCheck "
                                    "JRE installation. Set JAVA_HOME to JRE or JDK root "
                                    "directory"));
    EXPECT_THAT(done.out, Not(HasSubstr("health: ok")));
}

TEST_F(HostTool, NoJavaHomeAndNoJavaOnPathGivesCode001) {
    const ChildRun done = run({"health"}, {{"JAVA_HOME", std::nullopt}, {"PATH", "/nonexistent"}});
    EXPECT_EQ(done.status, 1);
    EXPECT_THAT(done.err, HasSubstr("ostrelink-host: JVM Launcher: Exception code 001. \nSet "
                                    "JAVA_HOME environment variable"));
    EXPECT_THAT(done.err, Not(HasSubstr("JAVA_HOME is not set; using")));
}

// Every tool that starts a JVM, with JAVA_HOME unset or empty.
TEST_F(HostTool, WithoutJavaHomeTheJdkOfJavaOnPathIsUsedThroughItsLinks) {
    const std::string path = pathWithJavaLink();
    const std::vector<std::pair<std::string, std::vector<std::string>>> tools = {
        {HOST_TOOL, {"call", "java.lang.System", "getProperty", "java.home"}},
        {STRESS_TOOL, {"--threads", "1", "--commands", "10", "--no-network"}},
    };
    for (const auto& [tool, arguments] : tools) {
        for (const std::optional<std::string>& javaHome : {std::optional<std::string>(), {""}}) {
            const ChildRun done = runChild(
                tool, arguments, {{"JAVA_HOME", javaHome}, {"PATH", path}}, directory.string());
            ASSERT_EQ(done.status, 0) << tool << "\n" << done.err;
            const std::string name = fs::path(tool).filename().string();
            EXPECT_EQ(ownLines(done.err, name),
                      name + ": JAVA_HOME is not set; using " HOST_JAVA_HOME ", the JDK of " +
                          path + "/java on PATH\n");
        }
    }
    EXPECT_EQ(run({"call", "java.lang.System", "getProperty", "java.home"},
                  {{"JAVA_HOME", ""}, {"PATH", path}})
                  .out,
              "call: " HOST_JAVA_HOME "\n");
}

TEST_F(HostTool, ARuntimePathOfItsOwnLeavesTheSearchToTheLibrary) {
    const std::string jvm = std::string(HOST_JAVA_HOME) + "/lib/server/libjvm.so";
    const ChildRun done = run({"health", "call", "java.lang.System", "getProperty", "java.version"},
                              {{"JAVA_HOME", std::nullopt},
                               {"OSTRELINK_JVM_RUNTIME_PATH", jvm},
                               {"PATH", pathWithJavaLink()}});
    ASSERT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(ownLines(done.err), "");
    EXPECT_THAT(done.err,
                HasSubstr("Looking for JVM runtime in OSTRELINK_JVM_RUNTIME_PATH environment "
                          "variable: " +
                          jvm + "\n"));
}

TEST_F(HostTool, StandardOutputHoldsTheResultsOnlyAndTheLibrarysLinesGoToStandardError) {
    const ChildRun done = run({"call", "java.lang.System", "getProperty", "java.version"});
    ASSERT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(done.out, "call: " + jdkVersion() + "\n");
    EXPECT_THAT(done.err, HasSubstr("JVM Native Launcher Runtime Info"));
}

TEST_F(HostTool, TheLibraryOptionOpensThatFileOrSaysWhyNot) {
    const fs::path staged = fs::path(OSTRELINK_NATIVE_DIR) / "libOstrelinkJvmRuntimeNative.so";
    const ChildRun named = run({"--library", staged.string(), "health"});
    EXPECT_EQ(named.status, 0) << named.err;

    const ChildRun missing = run({"--library", "/no/such/library.so", "health"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err,
                HasSubstr("ostrelink-host: cannot open the runtime library /no/such/library.so: "));

    const fs::path other = staged.parent_path() / "libConfigs.so";
    const ChildRun wrong = run({"--library", other.string(), "health"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(ownLines(wrong.err), "ostrelink-host: the runtime library " + other.string() +
                                       " does not export CreateReceiver\n");
}

TEST_F(HostTool, TheDoctorPassesOnTheStagedTreeWithALineForEachCheck) {
    const ChildRun done = run({"doctor"});
    ASSERT_EQ(done.status, 0) << done.out << done.err;
    for (const std::string& line : std::vector<std::string>{
             "JVM source: JAVA_HOME = " HOST_JAVA_HOME "\n",
             "libjvm candidate: " HOST_JAVA_HOME "/lib/server/libjvm.so: exists, loads, exports "
             "JNI_GetCreatedJavaVMs and JNI_CreateJavaVM, used\n",
             "runtime jar: ", "configuration source: none\n",
             "working directory: " + directory.string() + "\n", "error log: " + directory.string(),
             "JVM options (OSTRELINK_JVM_OPTIONS): none\n", "health check: ok\n",
             "JVM start: ok in ", "echo: ok, round trip ", "all checks passed\n"}) {
        EXPECT_THAT(done.out, HasSubstr("doctor: " + line));
    }
}

TEST_F(HostTool, TheDoctorStopsAtTheFirstProblemWithWhatToDo) {
    fs::create_directories(directory / "jre/lib");  // a JRE without the server VM
    copyStage(directory.string());
    fs::remove(directory / "stage/Binaries/Jvm/OstrelinkJvmRuntime.jar");
    const struct {
        std::map<std::string, std::optional<std::string>> environment;
        std::string tool;
        std::string problem;
        std::string fix;
    } cases[] = {
        {{{"JAVA_HOME", std::nullopt}, {"PATH", "/nonexistent"}},
         HOST_TOOL,
         "code 001",
         "set JAVA_HOME to"},
        {{{"JAVA_HOME", (directory / "nowhere").string()}},
         HOST_TOOL,
         "code 002",
         "which does not exist"},
        {{{"JAVA_HOME", (directory / "jre").string()}},
         HOST_TOOL,
         "code 002",
         "a JRE without the server VM"},
        {{},
         (directory / "stage/bin/ostrelink-host").string(),
         "OstrelinkJvmRuntime.jar is missing",
         "reinstall"},
    };
    for (const auto& [environment, tool, problem, fix] : cases) {
        const ChildRun done = run({"doctor"}, environment, tool);
        EXPECT_EQ(done.status, 1) << problem;
        EXPECT_THAT(done.out, AllOf(HasSubstr("doctor: problem: "), HasSubstr(problem),
                                    HasSubstr("doctor: fix: "), HasSubstr(fix),
                                    Not(HasSubstr("doctor: health check"))))
            << done.out;
    }
    // A bad JVM option passes the health check and stops the start.
    for (const auto& [options, code] :
         {std::pair{"-Xfoo", "031"}, std::pair{"-cp /x", "045"}, std::pair{"'open", "046"}}) {
        const ChildRun done = run({"doctor"}, {{"OSTRELINK_JVM_OPTIONS", options}});
        EXPECT_EQ(done.status, 1) << options;
        EXPECT_THAT(done.out,
                    AllOf(HasSubstr("doctor: health check: ok"),
                          HasSubstr(std::string("problem: JVM Launcher: Exception code ") + code),
                          ContainsRegex("doctor: fix: [^\n]*OSTRELINK_JVM_OPTIONS")))
            << done.out;
    }
}

}  // namespace
