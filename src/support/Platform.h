#pragma once

// Every literal that differs between platforms lives here, and nowhere else.

#if defined(__APPLE__)
#define OSTRELINK_LIBRARY_PREFIX "lib"
#define OSTRELINK_LIBRARY_SUFFIX ".dylib"
#define OSTRELINK_PLATFORM_NAME "MacOs"
#define OSTRELINK_ARCH_NAME "ARM64"
#define OSTRELINK_JVM_CANDIDATE_JRE "/jre/lib/server/libjvm.dylib"
#define OSTRELINK_JVM_CANDIDATE_JDK "/lib/server/libjvm.dylib"
#define OSTRELINK_JVM_LIBRARY_FILE "libjvm.dylib"
#define OSTRELINK_CALLING_MODE_ADOPTS_JVM 0
#define OSTRELINK_INITIAL_EXEC_TLS
#elif defined(__linux__)
#define OSTRELINK_LIBRARY_PREFIX "lib"
#define OSTRELINK_LIBRARY_SUFFIX ".so"
#define OSTRELINK_PLATFORM_NAME "Linux"
#if defined(__aarch64__)
#define OSTRELINK_ARCH_NAME "ARM64"
#define OSTRELINK_JVM_CANDIDATE_JRE "/jre/lib/aarch64/server/libjvm.so"
#else
#define OSTRELINK_ARCH_NAME "X64"
#define OSTRELINK_JVM_CANDIDATE_JRE "/jre/lib/amd64/server/libjvm.so"
#endif
#define OSTRELINK_JVM_CANDIDATE_JDK "/lib/server/libjvm.so"
#define OSTRELINK_JVM_LIBRARY_FILE "libjvm.so"
// On Linux a library in Calling mode adopts the JVM that runs in the process, so that other
// runtimes can call back into Java.
#define OSTRELINK_CALLING_MODE_ADOPTS_JVM 1
// A thread_local of the hot path read with one load: glibc keeps static TLS for libraries
// opened later, enough for a few pointers.
#define OSTRELINK_INITIAL_EXEC_TLS __attribute__((tls_model("initial-exec")))
#else
#error "Unsupported platform"
#endif

#define OSTRELINK_CLASS_PATH_SEPARATOR ":"
#define OSTRELINK_NATIVE_DIRECTORY \
    "/Binaries/Native/" OSTRELINK_PLATFORM_NAME "/" OSTRELINK_ARCH_NAME "/"
#define OSTRELINK_LIBRARY_FILE(NAME) OSTRELINK_LIBRARY_PREFIX NAME OSTRELINK_LIBRARY_SUFFIX

// Marks the few symbols that leave the library; everything else is hidden.
#define OSTRELINK_EXPORT __attribute__((visibility("default")))
