#include "LauncherTesting.h"

namespace fs = std::filesystem;

const std::string jdkCandidate = "/lib/server/libjvm.so";

// The library the search found, as the runtime info shows it.
static std::string searchPath(IReceiver* receiver) {
    const std::string info = runtimeInfo(receiver);
    return info.substr(info.rfind("JVM shared library search path: ") + 32);
}

// The search only binds the library; no JVM is started, so the staged tree serves as it is.
// Without the configuration library the variables still count, the first one unless empty. A
// directory without a JVM gives
// 002, naming the last candidate; a library without the invocation functions gives 003. (A
// Calling receiver: a Called one asks the configuration for its logging level.)
TEST(JvmSearch, WithoutConfigurationLibraryTheLoadFailuresGive002Then003) {
    const InstallationCopy copy;
    ASSERT_TRUE(fs::remove(fs::path(copy.libraryPath()).parent_path() / "libConfigs.so"));
    IReceiver* receiver = copy.receiver(RuntimeOperationMode::Calling, false);
    setenv("OSTRELINK_JVM_RUNTIME_PATH", "", 1);
    setenv("JAVA_HOME", copy.directory.c_str(), 1);
    EXPECT_EQ(failureOf([&] { receiver->Initialize(2, 8, 0); }),
              "JVM Launcher: Exception code 002. \nCheck JRE installation. Set JAVA_HOME to JRE "
              "or JDK root directory or set OSTRELINK_JVM_RUNTIME_PATH to proper jvm shared "
              "library file (libjvm.so)\nRUNTIME INFO:\n\nJVM Native Launcher Runtime Info: \nJVM "
              "shared library search path: " +
                  copy.directory + jdkCandidate);
    setenv("OSTRELINK_JVM_RUNTIME_PATH", copy.libraryPath().c_str(), 1);
    EXPECT_THAT(failureOf([&] { receiver->Initialize(2, 8, 0); }),
                StartsWith("JVM Launcher: Exception code 003. \nCheck JRE installation."));
    EXPECT_EQ(searchPath(receiver), copy.libraryPath());
}
