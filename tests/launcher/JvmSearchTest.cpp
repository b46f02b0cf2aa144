#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "LauncherTesting.h"
#include "common/HostLibrary.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

#if defined(__aarch64__)
constexpr const char* jreCandidate = "/jre/lib/aarch64/server/libjvm.so";
#else
constexpr const char* jreCandidate = "/jre/lib/amd64/server/libjvm.so";
#endif
constexpr const char* jdkCandidate = "/lib/server/libjvm.so";

constexpr const char* text002 =
    "JVM Launcher: Exception code 002. \nCheck JRE installation. Set JAVA_HOME to JRE or JDK root "
    "directory or set OSTRELINK_JVM_RUNTIME_PATH to proper jvm shared library file (libjvm.so)"
    "\nRUNTIME INFO:\n";
constexpr const char* variableLine =
    "Looking for JVM runtime in OSTRELINK_JVM_RUNTIME_PATH environment variable: ";

// The search only binds the library; no JVM is started, so the staged tree serves as it is.
class JvmSearch : public testing::Test {
protected:
    void SetUp() override {
        unsetenv("OSTRELINK_JVM_RUNTIME_PATH");
        unsetenv("JAVA_HOME");
        receiver = copy.createReceiver(RuntimeOperationMode::Called);
    }

    // Initialize with standard output captured.
    std::string initialize() {
        testing::internal::CaptureStdout();
        try {
            receiver->Initialize(8, 2, 0);
        } catch (...) {
            output = testing::internal::GetCapturedStdout();
            throw;
        }
        output = testing::internal::GetCapturedStdout();
        return output;
    }

    std::string searchPath() {
        const std::string info = runtimeInfo(receiver);
        const std::string label = "JVM shared library search path: ";
        const auto at = info.rfind(label);
        return at == std::string::npos ? "<none>" : info.substr(at + label.size());
    }

    // A JDK-like directory whose only JVM library is a link to the real one, at candidate.
    std::string fakeJdk(const std::string& candidate) {
        const fs::path library = fs::path(jdk.path() + candidate);
        fs::create_directories(library.parent_path());
        fs::create_symlink(realJvmLibrary(), library);
        return jdk.path();
    }

    InstallationCopy copy{testJar("probe")};
    TemporaryDirectory jdk;
    IReceiver* receiver = nullptr;
    std::string output;
};

TEST_F(JvmSearch, JavaHomeWithTheJdkLayoutOpensTheThirdCandidateSilently) {
    setEnvironment("JAVA_HOME", fakeJdk(jdkCandidate));
    EXPECT_THAT(initialize(), Not(HasSubstr("Looking for JVM runtime")));
    EXPECT_EQ(searchPath(), jdk.path() + jdkCandidate);
}

TEST_F(JvmSearch, JavaHomeWithTheJreLayoutOpensTheSecondCandidate) {
    setEnvironment("JAVA_HOME", fakeJdk(jreCandidate));
    initialize();
    EXPECT_EQ(searchPath(), jdk.path() + jreCandidate);
}

TEST_F(JvmSearch, ARuntimePathNamingTheLibraryFileOpensTheFirstCandidateAndWinsOverJavaHome) {
    setEnvironment("JAVA_HOME", fakeJdk(jdkCandidate));
    setEnvironment("OSTRELINK_JVM_RUNTIME_PATH", realJvmLibrary());
    EXPECT_THAT(initialize(), HasSubstr(variableLine + realJvmLibrary() + "\n"));
    EXPECT_EQ(searchPath(), realJvmLibrary());
}

TEST_F(JvmSearch, AnEmptyRuntimePathIsPrintedAndJavaHomeIsUsed) {
    setEnvironment("OSTRELINK_JVM_RUNTIME_PATH", "");
    setEnvironment("JAVA_HOME", OSTRELINK_JAVA_HOME);
    EXPECT_THAT(initialize(), HasSubstr(std::string(variableLine) + "\n"));
    EXPECT_EQ(searchPath(), realJvmLibrary());
}

TEST_F(JvmSearch, ATrailingSlashIsKeptInTheCandidates) {
    setEnvironment("JAVA_HOME", fakeJdk(jdkCandidate) + "/");
    initialize();
    EXPECT_EQ(searchPath(), jdk.path() + "/" + jdkCandidate);
}

TEST_F(JvmSearch, NoSourceGives001AndAnotherInitializeMayFollow) {
    EXPECT_THAT(failureOf([&] { initialize(); }),
                StartsWith("JVM Launcher: Exception code 001. \nSet JAVA_HOME environment variable"
                           "\nRUNTIME INFO:\n\nJVM Native Launcher Runtime Info: \nJVM shared "
                           "library search path: "));
    EXPECT_THAT(output, Not(HasSubstr("Looking for JVM runtime")));
    setEnvironment("JAVA_HOME", OSTRELINK_JAVA_HOME);
    EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);
    const Bytes command = javaCommand("after a failed Initialize");
    EXPECT_EQ(sendAndRead(receiver, command), command);
}

TEST_F(JvmSearch, AnEmptyRuntimePathWithoutJavaHomeIsPrintedThenGives001) {
    setEnvironment("OSTRELINK_JVM_RUNTIME_PATH", "");
    EXPECT_THAT(failureOf([&] { initialize(); }), StartsWith("JVM Launcher: Exception code 001."));
    EXPECT_THAT(output, HasSubstr(std::string(variableLine) + "\n"));
}

// The runtime info of the failure names the last candidate tried.
TEST_F(JvmSearch, ADirectoryWithoutAJvmGives002) {
    setEnvironment("JAVA_HOME", jdk.path());
    EXPECT_EQ(failureOf([&] { initialize(); }),
              std::string(text002) +
                  "\nJVM Native Launcher Runtime Info: \nJVM shared library search path: " +
                  jdk.path() + jdkCandidate);
}

TEST_F(JvmSearch, AFileThatIsNoLibraryGives002) {
    const std::string notALibrary = jdk.path() + "/libjvm.so";
    std::ofstream(notALibrary) << "not a shared library";
    setEnvironment("OSTRELINK_JVM_RUNTIME_PATH", notALibrary);
    EXPECT_THAT(failureOf([&] { initialize(); }), StartsWith(text002));
    EXPECT_EQ(searchPath(), notALibrary + jdkCandidate);
}

TEST_F(JvmSearch, ALibraryWithoutTheInvocationFunctionsGives003) {
    setEnvironment("OSTRELINK_JVM_RUNTIME_PATH", copy.libraryPath());
    EXPECT_THAT(failureOf([&] { initialize(); }),
                StartsWith("JVM Launcher: Exception code 003. \nCheck JRE installation. Set "
                           "JAVA_HOME to JRE or JDK root directory or set "
                           "OSTRELINK_JVM_RUNTIME_PATH to proper jvm shared library file (jvm.dll "
                           "or libjvm.so or libjvm.dylib)\nRUNTIME INFO:\n"));
    EXPECT_EQ(searchPath(), copy.libraryPath());
}

// The configuration is asked first; a path from it ends the search, and neither variable is
// looked at.
TEST_F(JvmSearch, AConfiguredPathWinsOverBothVariables) {
    const std::string configured = fakeJdk(jdkCandidate);
    const std::string source = jdk.path() + "/ostrelink.conf";
    std::ofstream(source) << "jvm.default.runtimePath = " << configured << "\n";
    ASSERT_EQ(receiver->SetConfigSource(source), 0);
    setEnvironment("OSTRELINK_JVM_RUNTIME_PATH", realJvmLibrary());
    setEnvironment("JAVA_HOME", OSTRELINK_JAVA_HOME);
    const std::string printed = initialize();
    EXPECT_THAT(printed, HasSubstr("Looking for JVM runtime in path: " + configured + "\n"));
    EXPECT_THAT(printed, Not(HasSubstr(variableLine)));
    EXPECT_EQ(searchPath(), configured + jdkCandidate);
}

// Without the configuration library the search goes on with the variables. (A Calling receiver,
// because a Called one asks the configuration for its logging level after the launcher is done.)
TEST(JvmSearchWithoutConfiguration, AMissingConfigurationLibraryIsNoFailure) {
    const InstallationCopy copy(testJar("probe"));
    ASSERT_TRUE(fs::remove(fs::path(copy.libraryPath()).parent_path() / "libConfigs.so"));
    unsetenv("OSTRELINK_JVM_RUNTIME_PATH");
    setEnvironment("JAVA_HOME", OSTRELINK_JAVA_HOME);
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Calling);
    EXPECT_EQ(receiver->Initialize(2, 8, 0), 0);
    EXPECT_THAT(runtimeInfo(receiver),
                EndsWith("JVM shared library search path: " + realJvmLibrary()));
}

}  // namespace
