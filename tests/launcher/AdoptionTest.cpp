#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "LauncherTesting.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

// The host creates the JVM itself, as a Java program's launcher would, with classPath, on a
// thread that detaches before it ends.
JavaVM* createHostJvm(const std::string& classPath) {
    void* library = dlopen(realJvmLibrary().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        ADD_FAILURE() << dlerror();
        return nullptr;
    }
    using CreateJavaVMFn = jint (*)(JavaVM**, void**, void*);
    const auto create = reinterpret_cast<CreateJavaVMFn>(dlsym(library, "JNI_CreateJavaVM"));
    JavaVM* jvm = nullptr;
    std::thread launch([&] {
        std::string option = "-Djava.class.path=" + classPath;
        JavaVMOption options[1] = {};
        options[0].optionString = option.data();
        JavaVMInitArgs args{};
        args.version = JNI_VERSION_1_8;
        args.nOptions = 1;
        args.options = options;
        args.ignoreUnrecognized = JNI_FALSE;
        JNIEnv* env = nullptr;
        ASSERT_EQ(create(&jvm, reinterpret_cast<void**>(&env), &args), JNI_OK);
        jvm->DetachCurrentThread();
    });
    launch.join();
    return jvm;
}

class Adoption : public testing::Test {
protected:
    std::string hostClassPath() const {
        return copy.root() + "/Binaries/Jvm/OstrelinkJvmRuntime.jar";
    }

    InstallationCopy copy{testJar("probe")};
};

// The JVM that runs is used as it is: no second one, the host's class path, and a load-library
// entry shows in the runtime info without reaching that class path.
TEST_F(Adoption, CalledAdoptsTheJvmTheHostCreated) {
    JavaVM* host = createHostJvm(hostClassPath());
    ASSERT_NE(host, nullptr);
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_EQ(sendAndRead(receiver, loadLibraryCommand(testJar("custom-first"))),
              acknowledgeBytes());
    const Bytes command = javaCommand("adopted");
    EXPECT_EQ(sendAndRead(receiver, command), command);
    EXPECT_EQ(runningJvms(), std::vector<JavaVM*>{host});
    EXPECT_EQ(runtimeInfo(receiver), "Loaded custom libraries:\n" + testJar("custom-first") +
                                         "\n\njava.class.path=" + hostClassPath() +
                                         "\nJVM Native Launcher Runtime Info: \nJVM shared "
                                         "library search path: " +
                                         realJvmLibrary());
}

// On this platform a Calling library adopts the JVM it lives in, at Initialize and again at the
// first command; both adoptions share the one receiver class, and threads then call into Java.
// Extra JVM options can't reach that JVM: it says so, once.
TEST_F(Adoption, CallingAdoptsTheJvmItLivesIn) {
    JavaVM* host = createHostJvm(hostClassPath());
    ASSERT_NE(host, nullptr);
    setEnvironment("OSTRELINK_JVM_OPTIONS", "-Xmx64m");
    testing::internal::CaptureStderr();
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Calling);
    ASSERT_EQ(receiver->Initialize(2, 8, 0), 0);
    const Bytes command = javaCommand("callback");
    EXPECT_EQ(sendAndRead(receiver, command), command);
    const std::string errors = testing::internal::GetCapturedStderr();
    const auto note = errors.find("OSTRELINK_JVM_OPTIONS is ignored");
    EXPECT_NE(note, std::string::npos);
    EXPECT_EQ(errors.find("OSTRELINK_JVM_OPTIONS is ignored", note + 1), std::string::npos);
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                const Bytes mine = javaCommand("callback " + std::to_string(t * 100 + i));
                if (sendAndRead(receiver, mine) != mine) {
                    ++mismatches;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(runningJvms(), std::vector<JavaVM*>{host});
}

// A JVM whose class path lacks the receiver class: code 022, and no JVM is created beside it.
TEST_F(Adoption, AnAdoptedJvmWithoutTheReceiverClassGives022) {
    ASSERT_NE(createHostJvm(testJar("custom-first")), nullptr);
    IReceiver* receiver = copy.createReceiver(RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    Bytes command = javaCommand("no receiver");
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(failureOf([&] {
                        receiver->SendCommand(command.data(), static_cast<int>(command.size()));
                    }),
                    StartsWith("JVM Launcher: Exception code 022. \nReinstall Ostrelink package"));
    }
    EXPECT_EQ(runningJvms().size(), 1U);
}

}  // namespace
