// The hand-written host to compare the first reply with: it opens libjvm itself, creates the JVM
// with the runtime jar on the class path, and makes the same call on the same receiver method.
// Writes the monotonic clock at the moment the reply is copied out on descriptor 3.
#include <dlfcn.h>
#include <jni.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "support/HandRoad.h"
#include "support/StagedRuntime.h"

namespace {

using CreateJavaVMFn = jint (*)(JavaVM**, void**, void*);

int fail(const char* what) {
    std::fprintf(stderr, "first reply (by hand): %s\n", what);
    return 1;
}

}  // namespace

int main() {
    const char* javaHome = std::getenv("JAVA_HOME");
    const std::string libjvm =
        std::string(javaHome != nullptr ? javaHome : OSTRELINK_JAVA_HOME) + "/lib/server/libjvm.so";
    void* library = dlopen(libjvm.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        return fail(dlerror());
    }
    const auto create = reinterpret_cast<CreateJavaVMFn>(dlsym(library, "JNI_CreateJavaVM"));
    if (create == nullptr) {
        return fail("libjvm has no JNI_CreateJavaVM");
    }
    std::string classPath = std::string("-Djava.class.path=") + OSTRELINK_RUNTIME_JAR;
    JavaVMOption options[1];
    options[0].optionString = classPath.data();
    JavaVMInitArgs arguments{};
    arguments.version = JNI_VERSION_1_8;
    arguments.nOptions = 1;
    arguments.options = options;
    arguments.ignoreUnrecognized = JNI_FALSE;
    JavaVM* jvm = nullptr;
    JNIEnv* env = nullptr;
    if (create(&jvm, reinterpret_cast<void**>(&env), &arguments) != JNI_OK) {
        return fail("JNI_CreateJavaVM failed");
    }
    try {
        const HandRoad road(env);
        const Bytes message = echoMessage(32);
        Bytes reply(message.size());
        if (road.call(env, message.data(), 32, reply.data(), 32) != 32 || reply != message) {
            return fail("no echo");
        }
    } catch (const std::exception& failure) {
        return fail(failure.what());
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::string report = std::to_string(now.tv_sec) + " " + std::to_string(now.tv_nsec);
    return write(3, report.data(), report.size()) == static_cast<ssize_t>(report.size()) ? 0 : 1;
}
