#pragma once

#include <jni.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeOperationMode.h>

#include "common/Calls.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::IReceiver;

// A test jar built beside the tests: "probe", "lacking-heartBeat", ...
std::string testJar(const std::string& name);

// A fresh temporary directory whose name begins with prefix, removed with the object.
class TemporaryDirectory {
public:
    explicit TemporaryDirectory(const std::string& prefix = "ostrelink-launcher-");
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// A copy of the staged tree in a temporary directory, its runtime jar replaced by runtimeJar
// (none if empty). The library of the copy finds that jar relative to itself, as an installed
// one does. One per test process: the library keeps process-wide state.
class InstallationCopy {
public:
    explicit InstallationCopy(const std::string& runtimeJar = testJar("probe"),
                              const std::string& directoryPrefix = "ostrelink-launcher-");

    // The installation root, which holds Binaries/.
    const std::string& root() const { return m_root; }
    std::string libraryPath() const;
    // The class path entry of the runtime jar, as the library of this copy writes it.
    std::string runtimeJarOnClassPath() const;
    // CreateReceiver of this copy's library.
    IReceiver* createReceiver(RuntimeOperationMode mode) const;
    // The same, initialized as the JVM runtime that the C++ one calls (Calling: that calls it).
    IReceiver* receiver(RuntimeOperationMode mode = RuntimeOperationMode::Called) const;

    TemporaryDirectory directory;

private:
    std::string m_root;
};

// A command for Java: a PlainCommand that is no health check.
inline Bytes javaCommand(const std::string& payload) {
    return makeMessage(2, 0, payload);
}
// The text of the failure that sending message raises.
std::string sendFailure(IReceiver* receiver, Bytes message);
inline std::string textOf(const Bytes& reply) {
    return std::string(reply.begin(), reply.end());
}

// The real JVM library of the test JDK.
std::string realJvmLibrary();
// The native part of the runtime info: always last, with no final end of line.
std::string nativeInfo();
// The runtime info as a failure shows it: the text behind "\nRUNTIME INFO:\n" of a read without
// a reply, made on a thread of its own so that no reply of the caller is touched.
std::string runtimeInfo(IReceiver* receiver);

// A JVM that the host creates itself, as a Java program's launcher would, with classPath, on a
// thread that detaches before it ends.
JavaVM* createHostJvm(const std::string& classPath);
// The JVMs that run in this process, through the JVM library that the launcher opened.
std::vector<JavaVM*> runningJvms();
// GetEnv of the current thread: JNI_OK when attached, JNI_EDETACHED when not.
jint attachState(JavaVM* jvm);

inline void setEnvironment(const char* name, const std::string& value) {
    setenv(name, value.c_str(), 1);
}
