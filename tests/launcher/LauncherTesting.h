#pragma once

#include <gmock/gmock.h>
#include <jni.h>
#include <stdlib.h>

#include <filesystem>
#include <thread>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

#include "common/Calls.h"
#include "common/HostLibrary.h"
#include "common/StageCopy.h"
#include "common/TemporaryDirectory.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::IReceiver;
using testing::StartsWith;

// A test jar built beside the tests: "probe", "lacking-heartBeat", ...
inline std::string testJar(const std::string& name) {
    return std::string(OSTRELINK_TEST_JAR_DIR) + name + ".jar";
}

// A copy of the staged tree in a temporary directory (removed with the object), its runtime jar
// replaced by runtimeJar (none if empty). The library of the copy finds that jar relative to
// itself, as an installed one does. One per test process: the library keeps process-wide state.
struct InstallationCopy {
    explicit InstallationCopy(const std::string& runtimeJar = testJar("probe"),
                              const char* prefix = "ostrelink-launcher-")
        : temporary(prefix) {
        std::filesystem::remove(jar);
        if (!runtimeJar.empty()) {
            std::filesystem::copy_file(runtimeJar, jar);
        }
    }
    // Initialized, unless not to, as the JVM runtime that the C++ one calls (Calling: that calls
    // it).
    IReceiver* receiver(RuntimeOperationMode mode = RuntimeOperationMode::Called,
                        bool initialize = true) const {
        IReceiver* receiver =
            HostLibrary(library).get<Ostrelink::Native::Interfaces::CreateReceiverFn>(
                "CreateReceiver")(mode);
        const bool calling = mode == RuntimeOperationMode::Calling;
        EXPECT_TRUE(!initialize || receiver->Initialize(calling ? 2 : 8, calling ? 8 : 2, 0) == 0);
        return receiver;
    }

    // Removed with the object: the library of the copy stays mapped, its file may go.
    const TemporaryDirectory temporary;
    const std::string& directory = temporary.path();
    const std::string native = copyStage(directory);  // with a final "/"
    const std::string library = native + "libOstrelinkJvmRuntimeNative.so";
    const std::string jar = directory + "/stage/Binaries/Jvm/OstrelinkJvmRuntime.jar";
    // The runtime jar as the library of this copy puts it on the class path.
    const std::string jarOnClassPath = native + "../../../../Binaries/Jvm/OstrelinkJvmRuntime.jar";
};

// A command for Java: a PlainCommand that is no health check.
inline Bytes javaCommand(const std::string& payload) {
    return makeMessage(2, 0, payload);
}
inline int send(IReceiver* receiver, Bytes message) {
    return receiver->SendCommand(message.data(), static_cast<int>(message.size()));
}
inline std::string textOf(const Bytes& reply) {
    return std::string(reply.begin(), reply.end());
}
inline std::string sendFailure(IReceiver* receiver, Bytes message) {
    return failureOf(
        [&] { receiver->SendCommand(message.data(), static_cast<int>(message.size())); });
}

inline const std::string jvmLibrary = std::string(OSTRELINK_JAVA_HOME) + "/lib/server/libjvm.so";
// The native part of the runtime info: always last, with no final end of line.
inline const std::string nativeInfo =
    "JVM Native Launcher Runtime Info: \nJVM shared library search path: " + jvmLibrary;
// The runtime info as a failure shows it: the text behind "\nRUNTIME INFO:\n" of a read without
// a reply, made on a thread of its own so that no reply of the caller is touched.
inline std::string runtimeInfo(IReceiver* receiver) {
    std::string text;
    std::thread([&] { text = failureOf([&] { receiver->ReadResponse(nullptr, 0); }); }).join();
    return text.substr(text.find("\nRUNTIME INFO:\n") + 15);
}

// A JVM that the host creates itself, as a Java program's launcher would; the creating thread
// detaches.
inline JavaVM* createHostJvm(const std::string& classPath) {
    std::string option = "-Djava.class.path=" + classPath;
    JavaVMOption options[1] = {{option.data(), nullptr}};
    JavaVMInitArgs args{JNI_VERSION_1_8, 1, options, JNI_FALSE};
    JavaVM* jvm = nullptr;
    void* env = nullptr;
    EXPECT_EQ(HostLibrary(jvmLibrary)
                  .get<jint (*)(JavaVM**, void**, void*)>("JNI_CreateJavaVM")(&jvm, &env, &args),
              JNI_OK);
    jvm->DetachCurrentThread();
    return jvm;
}
// The JVMs that run in this process.
inline std::vector<JavaVM*> runningJvms() {
    std::vector<JavaVM*> jvms(4, nullptr);
    jsize count = 0;
    HostLibrary(jvmLibrary)
        .get<jint (*)(JavaVM**, jsize, jsize*)>("JNI_GetCreatedJavaVMs")(jvms.data(), 4, &count);
    jvms.resize(static_cast<std::size_t>(count));
    return jvms;
}
// JNI_OK when the current thread is attached, JNI_EDETACHED when not.
inline jint attachState(JavaVM* jvm) {
    void* env = nullptr;
    return jvm->GetEnv(&env, JNI_VERSION_1_8);
}
