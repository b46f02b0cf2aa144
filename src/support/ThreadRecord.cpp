#include "support/ThreadRecord.h"

#include <pthread.h>
#include <unistd.h>

#include "support/Platform.h"

namespace {

// The library's only thread-local variable: docs/design.md gives its cost in static TLS.
thread_local ThreadRecord* thisThread OSTRELINK_INITIAL_EXEC_TLS = nullptr;

void freeRecord(void* record) {
    thisThread = nullptr;
    delete static_cast<ThreadRecord*>(record);
}

// The key whose destructor frees a thread's record. Deleted as the library is unloaded, so that
// no thread that ends later calls into unmapped code; the record of the thread that unloads it
// (or that ends the process) goes then too, as its pointer goes with the library. Without a key
// (the process has used up its keys) records are never freed, and kept attachments last as long
// as the process.
class RecordKey {
public:
    RecordKey() { m_made = pthread_key_create(&m_key, freeRecord) == 0; }
    ~RecordKey() {
        if (m_made) {
            pthread_key_delete(m_key);
        }
        m_made = false;
        if (thisThread != nullptr) {
            freeRecord(thisThread);
        }
    }
    RecordKey(const RecordKey&) = delete;
    RecordKey& operator=(const RecordKey&) = delete;

    void setForThisThread(ThreadRecord* record) {
        if (m_made) {
            pthread_setspecific(m_key, record);
        }
    }

private:
    pthread_key_t m_key{};
    bool m_made = false;
};

}  // namespace

ThreadRecord& ThreadRecord::ofThisThread() {
    ThreadRecord* record = thisThread;
    return record != nullptr ? *record : make();
}

ThreadRecord& ThreadRecord::make() {
    static RecordKey key;
    auto* record = new ThreadRecord();
    key.setForThisThread(record);
    thisThread = record;
    return *record;
}

namespace {

// Whether the thread's current attachment is a daemon one, as the library's always is. A host
// may detach a kept thread and attach it again itself, as an ordinary thread, and use that
// attachment in its own thread-exit code after this record is gone. Asked only at a thread's
// end; an answer Java can't give counts as a daemon, the attachment the library made.
bool attachedAsDaemon(JNIEnv* env) {
    if (env->ExceptionCheck() == JNI_TRUE) {
        return true;
    }
    jclass threadClass = env->FindClass("java/lang/Thread");
    jmethodID currentThread =
        threadClass == nullptr ? nullptr
                               : env->GetStaticMethodID(threadClass, "currentThread",
                                                        "()Ljava/lang/Thread;");
    jmethodID isDaemon =
        currentThread == nullptr ? nullptr : env->GetMethodID(threadClass, "isDaemon", "()Z");
    jobject thread =
        isDaemon == nullptr ? nullptr : env->CallStaticObjectMethod(threadClass, currentThread);
    const bool daemon =
        thread == nullptr || env->ExceptionCheck() == JNI_TRUE ||
        env->CallBooleanMethod(thread, isDaemon) == JNI_TRUE || env->ExceptionCheck() == JNI_TRUE;
    env->ExceptionClear();
    env->DeleteLocalRef(thread);
    env->DeleteLocalRef(threadClass);
    return daemon;
}

}  // namespace

// A forked child has none of the parent's JVM threads: detaching there would reach a JVM that
// can't answer. After DestroyJavaVM, GetEnv says detached and nothing is done.
ThreadRecord::~ThreadRecord() {
    void* env = nullptr;
    if (keptAttachment != nullptr && keptAttachmentProcess == getpid() &&
        keptAttachment->GetEnv(&env, JNI_VERSION_1_8) == JNI_OK &&
        attachedAsDaemon(static_cast<JNIEnv*>(env))) {
        keptAttachment->DetachCurrentThread();
    }
}
