#pragma once

#include <jni.h>

#include <string>

// The JVM's exit, abort and vfprintf hooks, given to the JVM that the library creates. Some
// options (a heap larger than the machine, a missing agent, two collectors, -Xms above -Xmx) make
// the JVM give up inside JNI_CreateJavaVM: it prints "Error occurred during initialization of VM"
// and calls exit(1), which would end the host. It calls its abort and exit hooks first. On the
// launch thread, during the start, they end that thread with pthread_exit instead: the JVM never
// resumes, the launch thread's join returns, and the start is marked abandoned for the rest of the
// process. Anywhere else (System.exit, a fatal error after the start) they return, and the JVM
// exits as it always did. The vfprintf hook passes the JVM's output on unchanged, flushed as the
// JVM's own unbuffered writes are, and keeps what the JVM prints during the start: its reason.
// Process-wide, as the JVM is: one JVM per process, and a JVM that gave up can't be started again.
namespace Ostrelink::Native::Launcher {

class JvmStartHooks {
public:
    static constexpr int optionCount = 3;
    // Writes the three hook options; they go before every other option, so that they are in
    // force while the JVM reads the rest.
    static void fill(JavaVMOption* options);

    // Marks the calling thread as the launch thread and keeps the JVM's output while it lives. A
    // thread that the JVM abandons ends inside it, by forced unwinding: a catch (...) on the way
    // must let abi::__forced_unwind through.
    class Watch {
    public:
        Watch();
        ~Watch();
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;
    };

    // True once the JVM gave up a start in this process.
    static bool abandoned();
    // What the JVM printed during the last start, from its last "Error occurred during
    // initialization of VM" on, without that line, blank lines and its "Picked up ..." notices;
    // empty if nothing is left.
    static std::string jvmMessage();
};

}  // namespace Ostrelink::Native::Launcher
