#include <string>

#include "launcher/JvmLauncher.h"

void JvmLauncher::RaisePendingJvmException(JNIEnv* env, Failure failure, bool clearException) {
    // The Java exception goes to standard error only; nothing of it enters the native message.
    env->ExceptionDescribe();
    if (clearException) {
        env->ExceptionClear();
    }
    RaiseLauncherException(failure);
}

void JvmLauncher::HandleException(OstrelinkNativeException exception) {
    const std::string message = exception.what();
    const std::string runtimeInfo = GetRuntimeInfo();
    throw OstrelinkNativeException(message + "\nRUNTIME INFO:\n" + runtimeInfo, "Unknown");
}

void JvmLauncher::RaiseLauncherException(Failure failure, const std::string& detail) {
    HandleException(
        OstrelinkNativeException(Ostrelink::Native::Failures::text(failure, detail), "Unknown"));
}

bool JvmLauncher::ClearPendingJavaException(JNIEnv* env) {
    if (env->ExceptionCheck() == JNI_FALSE) {
        return false;
    }
    env->ExceptionDescribe();
    env->ExceptionClear();
    return true;
}
