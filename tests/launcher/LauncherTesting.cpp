#include "LauncherTesting.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

#include <ostrelink/RuntimeFactories.h>

#include "common/HostLibrary.h"
#include "common/StageCopy.h"

namespace fs = std::filesystem;

std::string testJar(const std::string& name) {
    return std::string(OSTRELINK_TEST_JAR_DIR) + name + ".jar";
}

TemporaryDirectory::TemporaryDirectory(const std::string& prefix)
    : m_path((fs::temp_directory_path() / (prefix + "XXXXXX")).string()) {
    if (mkdtemp(m_path.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
}

// A library of a copy stays mapped; its file may go.
TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

InstallationCopy::InstallationCopy(const std::string& runtimeJar,
                                   const std::string& directoryPrefix)
    : directory(directoryPrefix) {
    copyStage(directory.path());
    m_root = directory.path() + "/stage";
    const fs::path jar = fs::path(m_root) / "Binaries/Jvm/OstrelinkJvmRuntime.jar";
    fs::remove(jar);
    if (!runtimeJar.empty()) {
        fs::copy_file(runtimeJar, jar);
    }
}

std::string InstallationCopy::libraryPath() const {
    const std::string staged = HostLibrary::stagedPath("OstrelinkJvmRuntimeNative");
    return m_root + staged.substr(std::string(OSTRELINK_STAGE_DIR).size());
}

std::string InstallationCopy::runtimeJarOnClassPath() const {
    const std::string library = libraryPath();
    return library.substr(0, library.rfind('/') + 1) +
           "../../../../Binaries/Jvm/OstrelinkJvmRuntime.jar";
}

IReceiver* InstallationCopy::createReceiver(RuntimeOperationMode mode) const {
    const HostLibrary library(libraryPath());
    return library.get<Ostrelink::Native::Interfaces::CreateReceiverFn>("CreateReceiver")(mode);
}

IReceiver* InstallationCopy::receiver(RuntimeOperationMode mode) const {
    IReceiver* receiver = createReceiver(mode);
    const bool calling = mode == RuntimeOperationMode::Calling;
    EXPECT_EQ(receiver->Initialize(calling ? 2 : 8, calling ? 8 : 2, 0), 0);
    return receiver;
}

std::string sendFailure(IReceiver* receiver, Bytes message) {
    return failureOf(
        [&] { receiver->SendCommand(message.data(), static_cast<int>(message.size())); });
}

std::string realJvmLibrary() {
    return std::string(OSTRELINK_JAVA_HOME) + "/lib/server/libjvm.so";
}

std::string nativeInfo() {
    return "JVM Native Launcher Runtime Info: \nJVM shared library search path: " +
           realJvmLibrary();
}

std::string runtimeInfo(IReceiver* receiver) {
    std::string text;
    std::thread([&text, receiver] {
        unsigned char buffer[1];
        text = failureOf([&buffer, receiver] { receiver->ReadResponse(buffer, 1); });
    }).join();
    const std::string marker = "\nRUNTIME INFO:\n";
    const auto at = text.find(marker);
    EXPECT_NE(at, std::string::npos) << text;
    return at == std::string::npos ? std::string() : text.substr(at + marker.size());
}

JavaVM* createHostJvm(const std::string& classPath) {
    void* library = dlopen(realJvmLibrary().c_str(), RTLD_NOW | RTLD_LOCAL);
    const auto create =
        reinterpret_cast<jint (*)(JavaVM**, void**, void*)>(dlsym(library, "JNI_CreateJavaVM"));
    JavaVM* jvm = nullptr;
    std::thread([&] {
        std::string option = "-Djava.class.path=" + classPath;
        JavaVMOption options[1] = {{option.data(), nullptr}};
        JavaVMInitArgs args{JNI_VERSION_1_8, 1, options, JNI_FALSE};
        JNIEnv* env = nullptr;
        EXPECT_EQ(create(&jvm, reinterpret_cast<void**>(&env), &args), JNI_OK);
        jvm->DetachCurrentThread();
    }).join();
    return jvm;
}

std::vector<JavaVM*> runningJvms() {
    void* library = dlopen(realJvmLibrary().c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) {
        return {};
    }
    const auto getCreated = reinterpret_cast<jint (*)(JavaVM**, jsize, jsize*)>(
        dlsym(library, "JNI_GetCreatedJavaVMs"));
    std::vector<JavaVM*> jvms(4, nullptr);
    jsize count = 0;
    getCreated(jvms.data(), static_cast<jsize>(jvms.size()), &count);
    jvms.resize(static_cast<std::size_t>(count));
    dlclose(library);
    return jvms;
}

jint attachState(JavaVM* jvm) {
    void* env = nullptr;
    return jvm->GetEnv(&env, JNI_VERSION_1_8);
}
