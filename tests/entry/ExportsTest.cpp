// The plain exported settings, called the way a host or a sibling library calls them.

#include <gtest/gtest.h>

#include <string>

#include <jni.h>

#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeFactories.h>

#include "common/HostLibrary.h"

using Ostrelink::Native::Interfaces::GetTransmitterFn;

namespace {

using AtStartUpFn = void (*)();
using GetJNIEnvFn = JNIEnv* (*)();

GetTransmitterFn getTransmitter() {
    return HostLibrary::jvmRuntime().get<GetTransmitterFn>("GetTransmitter");
}

AtStartUpFn atStartUp() {
    return HostLibrary::jvmRuntime().get<AtStartUpFn>("_Z9AtStartUpv");
}

TEST(AtStartUp, MakesTheOneTransmitterOnce) {
    ASSERT_EQ(getTransmitter()(), nullptr);
    atStartUp()();
    const auto* first = getTransmitter()();
    ASSERT_NE(first, nullptr);
    atStartUp()();
    EXPECT_EQ(getTransmitter()(), first);
}

TEST(GetJNIEnv, IsNullBecauseNoEnvironmentIsRecorded) {
    EXPECT_EQ(HostLibrary::jvmRuntime().get<GetJNIEnvFn>("GetJNIEnv")(), nullptr);
}

}  // namespace
