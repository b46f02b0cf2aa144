#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "LauncherTesting.h"
#include "common/HostLibrary.h"
#include "launcher/JvmSearch.h"

using Ostrelink::Native::Launcher::JvmSearch;
using Ostrelink::Native::Launcher::searchJvm;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Lines = std::vector<std::string>;
using Source = JvmSearch::Source;

namespace fs = std::filesystem;

namespace {

#if defined(__aarch64__)
constexpr const char* jreCandidate = "/jre/lib/aarch64/server/libjvm.so";
#else
constexpr const char* jreCandidate = "/jre/lib/amd64/server/libjvm.so";
#endif
constexpr const char* jdkCandidate = "/lib/server/libjvm.so";
constexpr const char* variableLine =
    "Looking for JVM runtime in OSTRELINK_JVM_RUNTIME_PATH environment variable: ";

// The configuration first, then OSTRELINK_JVM_RUNTIME_PATH unless empty, then JAVA_HOME, even
// empty; the variable is printed whenever it is asked and set.
TEST(JvmSearchOrder, FirstSourceWithAPathWinsAndTheCandidatesFollowIt) {
    const char* const unset = nullptr;
    const struct {
        const char* configured;
        const char* runtimePath;
        const char* javaHome;
        Source source;
        const char* path;
        Lines lines;
    } cases[] = {
        {"", unset, unset, Source::None, "", {}},
        {"", "", unset, Source::None, "", {variableLine}},
        {"", "", "/jdk", Source::JavaHome, "/jdk", {variableLine}},
        {"", unset, "", Source::JavaHome, "", {}},
        {"", unset, "/jdk/", Source::JavaHome, "/jdk/", {}},
        {"",
         "/rt/libjvm.so",
         "/jdk",
         Source::RuntimePathVariable,
         "/rt/libjvm.so",
         {std::string(variableLine) + "/rt/libjvm.so"}},
        {"/conf",
         "/rt",
         "/jdk",
         Source::Configured,
         "/conf",
         {"Looking for JVM runtime in path: /conf"}},
    };
    for (const auto& c : cases) {
        const JvmSearch search = searchJvm(c.configured, c.runtimePath, c.javaHome);
        const std::string path = c.path;
        EXPECT_EQ(search.source, c.source) << path;
        EXPECT_EQ(search.path, path);
        EXPECT_EQ(search.lines, c.lines) << path;
        EXPECT_EQ(search.failure.has_value(), c.source == Source::None) << path;
        EXPECT_EQ(search.candidates, c.source == Source::None
                                         ? Lines{}
                                         : Lines({path, path + jreCandidate, path + jdkCandidate}));
    }
}

// The search only binds the library; no JVM is started, so the staged tree serves as it is.
class JvmSearchEndToEnd : public testing::Test {
protected:
    void SetUp() override {
        unsetenv("OSTRELINK_JVM_RUNTIME_PATH");
        unsetenv("JAVA_HOME");
    }

    std::string searchPath(IReceiver* receiver) {
        const std::string info = runtimeInfo(receiver);
        const std::string label = "JVM shared library search path: ";
        const auto at = info.rfind(label);
        return at == std::string::npos ? "<none>" : info.substr(at + label.size());
    }

    InstallationCopy copy{testJar("probe")};
    TemporaryDirectory jdk;
};

// The configuration is asked first; a path from it ends the search, and neither variable is
// looked at.
TEST_F(JvmSearchEndToEnd, AConfiguredPathWinsOverBothVariables) {
    const fs::path library = fs::path(jdk.path() + jdkCandidate);
    fs::create_directories(library.parent_path());
    fs::create_symlink(realJvmLibrary(), library);
    const std::string source = jdk.path() + "/ostrelink.conf";
    std::ofstream(source) << "jvm.default.runtimePath = " << jdk.path() << "\n";
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->SetConfigSource(source), 0);
    setEnvironment("OSTRELINK_JVM_RUNTIME_PATH", realJvmLibrary());
    setEnvironment("JAVA_HOME", OSTRELINK_JAVA_HOME);
    testing::internal::CaptureStdout();
    receiver->Initialize(8, 2, 0);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_THAT(printed, HasSubstr("Looking for JVM runtime in path: " + jdk.path() + "\n"));
    EXPECT_THAT(printed, Not(HasSubstr(variableLine)));
    EXPECT_EQ(searchPath(receiver), jdk.path() + jdkCandidate);
}

// Without the configuration library the variables still count. A directory without a JVM gives
// 002, naming the last candidate; a library without the invocation functions gives 003. (A
// Calling receiver: a Called one asks the configuration for its logging level.)
TEST_F(JvmSearchEndToEnd, WithoutConfigurationLibraryTheLoadFailuresGive002Then003) {
    ASSERT_TRUE(fs::remove(fs::path(copy.libraryPath()).parent_path() / "libConfigs.so"));
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Calling);
    setEnvironment("JAVA_HOME", jdk.path());
    EXPECT_EQ(failureOf([&] { receiver->Initialize(2, 8, 0); }),
              "JVM Launcher: Exception code 002. \nCheck JRE installation. Set JAVA_HOME to JRE "
              "or JDK root directory or set OSTRELINK_JVM_RUNTIME_PATH to proper jvm shared "
              "library file (libjvm.so)\nRUNTIME INFO:\n\nJVM Native Launcher Runtime Info: \nJVM "
              "shared library search path: " +
                  jdk.path() + jdkCandidate);
    setEnvironment("OSTRELINK_JVM_RUNTIME_PATH", copy.libraryPath());
    EXPECT_THAT(failureOf([&] { receiver->Initialize(2, 8, 0); }),
                StartsWith("JVM Launcher: Exception code 003. \nCheck JRE installation. Set "
                           "JAVA_HOME to JRE or JDK root directory or set "
                           "OSTRELINK_JVM_RUNTIME_PATH to proper jvm shared library file (jvm.dll "
                           "or libjvm.so or libjvm.dylib)\nRUNTIME INFO:\n"));
    EXPECT_EQ(searchPath(receiver), copy.libraryPath());
}

}  // namespace
