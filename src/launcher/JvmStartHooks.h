#pragma once

#include <jni.h>

#include <functional>
#include <string>

namespace Ostrelink::Native::Launcher {

// The launch thread, and the JVM's exit, abort and vfprintf hooks of the JVM that the library
// creates. Some options (a heap larger than the machine, a missing agent, two collectors, -Xms
// above -Xmx) make the JVM give up inside JNI_CreateJavaVM: it prints "Error occurred during
// initialization of VM" and calls exit(1), which would end the host. It calls a hook first: its
// abort hook on OpenJDK 17 here, its exit hook on another build. On the launch thread during the
// start, either hook parks that thread for ever and lets the thread that waits for it go on; the
// JVM never resumes, and the start stays abandoned for the rest of the process. Anywhere else
// (System.exit, a fatal error after the start) a hook returns, and the JVM exits as it always
// did. The vfprintf hook passes the JVM's output on unchanged, flushed as the JVM's own
// unbuffered writes are, and keeps what the JVM prints during the start: its reason.
// Process-wide, as the JVM is: one JVM per process, and one that gave up can't be started again.
class JvmStartHooks {
public:
    static constexpr int optionCount = 3;
    // Writes the three hook options; they go before every other option, so that they are in
    // force while the JVM reads the rest.
    static void fill(JavaVMOption* options);

    // Runs body, which creates the JVM, on a new thread, the launch thread, keeping what the JVM
    // prints meanwhile. Returns true once body returned, the thread joined; false when the JVM
    // gave up during body: the thread stays parked inside the JVM, let go, and nothing that body
    // refers to may be used by it again (it never is).
    static bool launch(const std::function<void()>& body);

    // True once the JVM gave up a start in this process.
    static bool abandoned();
    // What the JVM printed during the last start, from its last "Error occurred during
    // initialization of VM" on, without that line, blank lines and its "Picked up ..." notices;
    // empty if nothing is left.
    static std::string jvmMessage();
};

}  // namespace Ostrelink::Native::Launcher
