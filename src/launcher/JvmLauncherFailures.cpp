#include <string>

#include "launcher/JvmLauncher.h"

bool JvmLauncher::CheckAndHandleJvmException(JNIEnv* env, const char* code, bool clearException) {
    if (env->ExceptionCheck() == JNI_FALSE) {
        return false;
    }
    // The Java exception goes to standard error only; nothing of it enters the native message.
    env->ExceptionDescribe();
    if (clearException) {
        env->ExceptionClear();
    }
    HandleException(OstrelinkNativeException(
        std::string("JVM Launcher: Exception code ") + code + ". JVM exception occurred",
        "Unknown"));
}

void JvmLauncher::HandleException(OstrelinkNativeException exception) {
    const std::string message = exception.what();
    const std::string runtimeInfo = GetRuntimeInfo();
    throw OstrelinkNativeException(message + "\nRUNTIME INFO:\n" + runtimeInfo, "Unknown");
}

void JvmLauncher::RaiseLauncherException(const std::string& message) {
    HandleException(OstrelinkNativeException(message, "Unknown"));
}

bool JvmLauncher::ClearPendingJavaException(JNIEnv* env) {
    if (env->ExceptionCheck() == JNI_FALSE) {
        return false;
    }
    env->ExceptionDescribe();
    env->ExceptionClear();
    return true;
}
