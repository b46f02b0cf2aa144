#pragma once

#include <jni.h>
#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace Ostrelink::Native::Interfaces {
class ITransport;
}
namespace Ostrelink::Native::Transport {
struct DeployScope;
}

// Everything of this library that belongs to one thread, in one heap record reached from a single
// thread-local pointer. Why not a thread_local each: the loader puts a module's whole TLS block
// into static TLS as soon as one variable of it is read with the initial-exec model, and static
// TLS left for libraries opened later is small (a host that loaded others first can't open us).
// One pointer is all the module's TLS, and the hot paths still read it with one load.
// The record is made at the thread's first use and freed by a pthread key destructor as the
// thread ends. A use after that (a host's own key destructor sending a command) makes a new
// record, which the next destructor round frees again; the C++ thread_local destructors of the
// host run before any key destructor and so still find the record.
// Hazard: a thread that outlives the unloading of this library keeps its record (and a kept JVM
// attachment) for good: the key, and its destructor, go with the library.
class ThreadRecord {
public:
    // The calling thread's record, made at its first use. Throws std::bad_alloc only.
    static ThreadRecord& ofThisThread();
    // Detaches the kept JVM attachment, in the process that made it only.
    ~ThreadRecord();
    ThreadRecord(const ThreadRecord&) = delete;
    ThreadRecord& operator=(const ThreadRecord&) = delete;

    // Launcher: the thread's reply in each launcher it has used, named by the launcher's id.
    struct Reply {
        std::uint64_t launcherId;
        std::vector<unsigned char> bytes;
        bool stored;
    };
    std::vector<Reply> replies;
    // Launcher: the JVM that the library attached this thread to, as a daemon, for the rest of
    // its life; null if none. Detached when the record goes.
    JavaVM* keptAttachment = nullptr;
    pid_t keptAttachmentProcess = 0;
    // Launcher: set while this thread asks Java for its runtime info.
    bool queryingManagedRuntime = false;
    // Exceptions: how deep this thread is in reporting one, and in the library's load.
    int reportingDepth = 0;
    int loadTimeDepth = 0;
    // Transmitter: the thread's entry of the transmitter it used last, mirrored.
    struct Channel {
        std::uint64_t transmitterId = 0;
        std::uint64_t route = 0;
        Ostrelink::Native::Interfaces::ITransport* channel = nullptr;
    };
    Channel channel;
    // In-memory channel: the chain of DeployRuntime calls this thread is inside, innermost first.
    const Ostrelink::Native::Transport::DeployScope* deploying = nullptr;

private:
    ThreadRecord() = default;
    static ThreadRecord& make();
};
