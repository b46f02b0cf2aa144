// ThreadJniEnv and getJniEnvForThread are compiled into this test from their sources: no export
// of the library reaches them on their own, and what they must do for a thread other than the
// first caller's can be seen only here.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "launcher/ThreadJniEnv.h"

namespace {

// A JVM of the test's own, created on a thread that detaches before it ends.
JavaVM* testJvm() {
    static JavaVM* jvm = [] {
        void* library = dlopen(OSTRELINK_JAVA_HOME "/lib/server/libjvm.so", RTLD_NOW | RTLD_LOCAL);
        using CreateJavaVMFn = jint (*)(JavaVM**, void**, void*);
        const auto create = reinterpret_cast<CreateJavaVMFn>(dlsym(library, "JNI_CreateJavaVM"));
        JavaVM* created = nullptr;
        std::thread launch([&] {
            JavaVMInitArgs args{};
            args.version = JNI_VERSION_1_8;
            JNIEnv* env = nullptr;
            if (create(&created, reinterpret_cast<void**>(&env), &args) == JNI_OK) {
                created->DetachCurrentThread();
            }
        });
        launch.join();
        return created;
    }();
    return jvm;
}

JNIEnv* currentEnv(JavaVM* jvm) {
    void* env = nullptr;
    return jvm->GetEnv(&env, JNI_VERSION_1_8) == JNI_OK ? static_cast<JNIEnv*>(env) : nullptr;
}

// Runs body on a thread of its own, which the JVM has never seen.
template <typename Body>
void onNewThread(Body body) {
    std::thread thread(body);
    thread.join();
}

TEST(ThreadJniEnv, AttachesADetachedThreadForItsLifeEachTime) {
    JavaVM* jvm = testJvm();
    ASSERT_NE(jvm, nullptr);
    onNewThread([jvm] {
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(currentEnv(jvm), nullptr);
            {
                const ThreadJniEnv env(jvm);
                EXPECT_NE(env.m_jniEnv, nullptr);
                EXPECT_EQ(currentEnv(jvm), env.m_jniEnv);
            }
            EXPECT_EQ(currentEnv(jvm), nullptr);
        }
    });
}

TEST(ThreadJniEnv, LeavesAnAttachedThreadAttached) {
    JavaVM* jvm = testJvm();
    ASSERT_NE(jvm, nullptr);
    onNewThread([jvm] {
        JNIEnv* own = nullptr;
        ASSERT_EQ(jvm->AttachCurrentThread(reinterpret_cast<void**>(&own), nullptr), JNI_OK);
        {
            const ThreadJniEnv env(jvm);
            EXPECT_EQ(env.m_jniEnv, own);
        }
        EXPECT_EQ(currentEnv(jvm), own);
        jvm->DetachCurrentThread();
    });
}

TEST(ThreadJniEnv, NestedOnADetachedThreadOnlyTheOuterDetaches) {
    JavaVM* jvm = testJvm();
    ASSERT_NE(jvm, nullptr);
    onNewThread([jvm] {
        {
            const ThreadJniEnv outer(jvm);
            {
                const ThreadJniEnv inner(jvm);
                EXPECT_EQ(inner.m_jniEnv, outer.m_jniEnv);
            }
            EXPECT_EQ(currentEnv(jvm), outer.m_jniEnv);
        }
        EXPECT_EQ(currentEnv(jvm), nullptr);
    });
}

TEST(ThreadJniEnv, ANullJvmIsRefused) {
    try {
        const ThreadJniEnv env(nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const std::exception& exception) {
        EXPECT_STREQ(exception.what(), "ThreadJniEnv: JavaVM pointer is null");
    }
}

// A static int or an instance boolean method of java.lang.Thread, on the current thread.
jint callThreadMethod(JNIEnv* env, const char* name) {
    const jclass thread = env->FindClass("java/lang/Thread");
    EXPECT_FALSE(env->ExceptionCheck());
    jint result = 0;
    if (std::string(name) == "activeCount") {
        result = env->CallStaticIntMethod(thread, env->GetStaticMethodID(thread, name, "()I"));
    } else {
        const jobject current = env->CallStaticObjectMethod(
            thread, env->GetStaticMethodID(thread, "currentThread", "()Ljava/lang/Thread;"));
        EXPECT_FALSE(env->ExceptionCheck());
        result = env->CallBooleanMethod(current, env->GetMethodID(thread, name, "()Z"));
        env->DeleteLocalRef(current);
    }
    EXPECT_FALSE(env->ExceptionCheck());
    env->DeleteLocalRef(thread);
    return result;
}

jint liveJavaThreads(JavaVM* jvm) {
    jint count = 0;
    onNewThread([&] { count = callThreadMethod(ThreadJniEnv(jvm).m_jniEnv, "activeCount"); });
    return count;
}

// Each thread gets an environment of its own, the same whatever a later call passes, attached as
// a daemon so that it never holds up the JVM's exit, and detached when the thread ends.
TEST(GetJniEnvForThread, EachThreadIsAttachedAsADaemonUntilItEnds) {
    JavaVM* jvm = testJvm();
    ASSERT_NE(jvm, nullptr);
    const jint before = liveJavaThreads(jvm);
    for (int i = 0; i < 2; ++i) {
        onNewThread([&] {
            JNIEnv* env = getJniEnvForThread(jvm);
            ASSERT_NE(env, nullptr);
            EXPECT_EQ(currentEnv(jvm), env);
            EXPECT_EQ(getJniEnvForThread(nullptr), env);
            EXPECT_TRUE(callThreadMethod(env, "isDaemon"));
        });
    }
    EXPECT_EQ(liveJavaThreads(jvm), before);
}

}  // namespace
