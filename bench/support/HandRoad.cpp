#include "support/HandRoad.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace {

using GetCreatedJavaVMsFn = jint (*)(JavaVM**, jsize, jsize*);

int rememberJvmLibrary(dl_phdr_info* info, std::size_t, void* data) {
    const std::string name = info->dlpi_name != nullptr ? info->dlpi_name : "";
    const std::string suffix = "/libjvm.so";
    if (name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        *static_cast<std::string*>(data) = name;
        return 1;
    }
    return 0;
}

void throwOnJavaException(JNIEnv* env, const char* step) {
    if (env->ExceptionCheck() == JNI_TRUE) {
        env->ExceptionClear();
        throw std::runtime_error(std::string("Java exception at ") + step);
    }
}

}  // namespace

std::string loadedJvmLibraryPath() {
    std::string path;
    dl_iterate_phdr(rememberJvmLibrary, &path);
    return path;
}

JavaVM* runningJvm() {
    const std::string path = loadedJvmLibraryPath();
    if (path.empty()) {
        throw std::runtime_error("no libjvm.so is loaded in this process");
    }
    // The loader's reference count goes up by one and stays: libjvm is never unloaded anyway.
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        throw std::runtime_error("cannot reach the loaded " + path);
    }
    const auto getCreated =
        reinterpret_cast<GetCreatedJavaVMsFn>(dlsym(handle, "JNI_GetCreatedJavaVMs"));
    JavaVM* jvm = nullptr;
    jsize count = 0;
    if (getCreated == nullptr || getCreated(&jvm, 1, &count) != JNI_OK || count < 1) {
        throw std::runtime_error("no JVM runs in this process");
    }
    return jvm;
}

bool isAttached(JavaVM* jvm) {
    JNIEnv* env = nullptr;
    return jvm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8) == JNI_OK;
}

ScopedAttach::ScopedAttach(JavaVM* jvm) : m_jvm(jvm) {
    const jint state = jvm->GetEnv(reinterpret_cast<void**>(&m_env), JNI_VERSION_1_8);
    if (state == JNI_EDETACHED) {
        if (jvm->AttachCurrentThread(reinterpret_cast<void**>(&m_env), nullptr) != JNI_OK) {
            throw std::runtime_error("AttachCurrentThread failed");
        }
        m_attached = true;
    } else if (state != JNI_OK) {
        throw std::runtime_error("GetEnv failed");
    }
}

ScopedAttach::~ScopedAttach() {
    if (m_attached) {
        m_jvm->DetachCurrentThread();
    }
}

HandRoad::HandRoad(JNIEnv* env, const char* className, const char* methodName) {
    jclass local = env->FindClass(className);
    throwOnJavaException(env, "FindClass");
    if (local == nullptr) {
        throw std::runtime_error(std::string("class not found: ") + className);
    }
    m_class = static_cast<jclass>(env->NewGlobalRef(local));
    env->DeleteLocalRef(local);
    m_method = env->GetStaticMethodID(m_class, methodName, "([B)[B");
    throwOnJavaException(env, "GetStaticMethodID");
}

int HandRoad::call(JNIEnv* env, const unsigned char* message, int length, unsigned char* reply,
                   int capacity) const {
    jbyteArray request = env->NewByteArray(length);
    throwOnJavaException(env, "NewByteArray");
    env->SetByteArrayRegion(request, 0, length, reinterpret_cast<const jbyte*>(message));
    throwOnJavaException(env, "SetByteArrayRegion");
    auto answer = static_cast<jbyteArray>(env->CallStaticObjectMethod(m_class, m_method, request));
    throwOnJavaException(env, "CallStaticObjectMethod");
    if (answer == nullptr) {
        env->DeleteLocalRef(request);
        throw std::runtime_error("null reply");
    }
    const jsize answerLength = env->GetArrayLength(answer);
    jbyte* elements = env->GetByteArrayElements(answer, nullptr);
    throwOnJavaException(env, "GetByteArrayElements");
    std::memcpy(reply, elements, static_cast<std::size_t>(std::min(answerLength, capacity)));
    env->ReleaseByteArrayElements(answer, elements, JNI_ABORT);
    env->DeleteLocalRef(answer);
    env->DeleteLocalRef(request);
    return answerLength;
}
