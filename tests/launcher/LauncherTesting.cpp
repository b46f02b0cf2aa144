#include "LauncherTesting.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <ostrelink/RuntimeFactories.h>

#include "common/HostLibrary.h"
#include "common/StageCopy.h"

namespace fs = std::filesystem;

namespace {
std::string makeTemporaryDirectory(const std::string& prefix = "ostrelink-launcher-") {
    std::string pattern = (fs::temp_directory_path() / (prefix + "XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    return pattern;
}
}  // namespace

std::string testJar(const std::string& name) {
    return std::string(OSTRELINK_TEST_JAR_DIR) + name + ".jar";
}

InstallationCopy::InstallationCopy(const std::string& runtimeJar,
                                   const std::string& directoryPrefix)
    : m_root(makeTemporaryDirectory(directoryPrefix) + "/stage") {
    copyStage(fs::path(m_root).parent_path());
    fs::copy_file(runtimeJar, fs::path(m_root) / "Binaries/Jvm/OstrelinkJvmRuntime.jar",
                  fs::copy_options::overwrite_existing);
}

// The library stays mapped; its file may go.
InstallationCopy::~InstallationCopy() {
    std::error_code ignored;
    fs::remove_all(fs::path(m_root).parent_path(), ignored);
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

TemporaryDirectory::TemporaryDirectory() : m_path(makeTemporaryDirectory()) {}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

std::string realJvmLibrary() {
    return std::string(OSTRELINK_JAVA_HOME) + "/lib/server/libjvm.so";
}

std::vector<JavaVM*> runningJvms() {
    void* library = dlopen(realJvmLibrary().c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) {
        return {};
    }
    using GetCreatedJavaVMsFn = jint (*)(JavaVM**, jsize, jsize*);
    const auto getCreated =
        reinterpret_cast<GetCreatedJavaVMsFn>(dlsym(library, "JNI_GetCreatedJavaVMs"));
    std::vector<JavaVM*> jvms(4, nullptr);
    jsize count = 0;
    getCreated(jvms.data(), static_cast<jsize>(jvms.size()), &count);
    jvms.resize(static_cast<std::size_t>(count));
    dlclose(library);
    return jvms;
}

jint threadAttachState(JavaVM* jvm) {
    void* env = nullptr;
    return jvm->GetEnv(&env, JNI_VERSION_1_8);
}

Bytes sendAndRead(IReceiver* receiver, const Bytes& message) {
    Bytes copy = message;
    const int length = receiver->SendCommand(copy.data(), static_cast<int>(copy.size()));
    Bytes reply(static_cast<std::size_t>(length), 0);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), length), 0);
    return reply;
}

Bytes javaCommand(const std::string& payload) {
    return makeMessage(2, 0, payload);
}

Bytes loadLibraryCommand(const std::string& path) {
    return makeMessage(2, 1, path);
}

std::string runtimeInfo(IReceiver* receiver) {
    std::string text;
    std::thread reader([&text, receiver] {
        unsigned char buffer[1];
        text = failureOf([&buffer, receiver] { receiver->ReadResponse(buffer, 1); });
    });
    reader.join();
    const std::string marker = "\nRUNTIME INFO:\n";
    const auto at = text.find(marker);
    EXPECT_NE(at, std::string::npos) << text;
    return at == std::string::npos ? std::string() : text.substr(at + marker.size());
}

void setEnvironment(const char* name, const std::string& value) {
    setenv(name, value.c_str(), 1);
}

std::vector<std::string> jvmOptions(IReceiver* receiver) {
    const Bytes reply = sendAndRead(receiver, javaCommand("jvm-arguments"));
    std::istringstream lines(std::string(reply.begin(), reply.end()));
    std::vector<std::string> options;
    for (std::string line; std::getline(lines, line);) {
        options.push_back(line);
    }
    if (!options.empty() && options.front() == "-Xcheck:jni") {
        options.erase(options.begin());
    }
    return options;
}

std::string libraryPathOption() {
    return std::string("-Djava.library.path=") + OSTRELINK_JAVA_HOME +
           "/lib:" + OSTRELINK_JAVA_HOME + "/jre/lib";
}
