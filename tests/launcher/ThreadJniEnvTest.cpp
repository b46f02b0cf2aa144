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

// The first caller's environment stays its own: the same thread gets it again whatever it
// passes, and another thread gets one of its own, never the first caller's.
TEST(GetJniEnvForThread, EachThreadGetsAnEnvironmentOfItsOwn) {
    JavaVM* jvm = testJvm();
    ASSERT_NE(jvm, nullptr);
    JNIEnv* first = nullptr;
    onNewThread([&] {
        first = getJniEnvForThread(jvm);
        EXPECT_EQ(currentEnv(jvm), first);
        EXPECT_EQ(getJniEnvForThread(nullptr), first);
    });
    ASSERT_NE(first, nullptr);
    onNewThread([&] {
        JNIEnv* second = getJniEnvForThread(jvm);
        EXPECT_NE(second, nullptr);
        EXPECT_NE(second, first);
        EXPECT_EQ(currentEnv(jvm), second);
        EXPECT_EQ(getJniEnvForThread(jvm), second);
    });
}

}  // namespace
