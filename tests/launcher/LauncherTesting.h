#pragma once

#include <jni.h>

#include <functional>
#include <string>
#include <vector>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeOperationMode.h>

#include "common/Calls.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::IReceiver;

// A test jar built beside the tests: "probe", "throwing", "custom-first", ...
std::string testJar(const std::string& name);

// A private copy of the staged installation in a temporary directory whose name begins with
// directoryPrefix, its runtime jar replaced by a test jar. The library of the copy finds that jar
// relative to itself, as an installed one does. One copy per test process: the library keeps
// process-wide state.
class InstallationCopy {
public:
    explicit InstallationCopy(const std::string& runtimeJar,
                              const std::string& directoryPrefix = "ostrelink-launcher-");
    ~InstallationCopy();
    InstallationCopy(const InstallationCopy&) = delete;
    InstallationCopy& operator=(const InstallationCopy&) = delete;

    const std::string& root() const { return m_root; }
    std::string libraryPath() const;
    // The class path entry of the runtime jar, as the library of this copy writes it.
    std::string runtimeJarOnClassPath() const;
    // CreateReceiver of this copy's library.
    IReceiver* createReceiver(RuntimeOperationMode mode) const;

private:
    std::string m_root;
};

// A fresh temporary directory, removed with the object.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// The real JVM library of the test JDK.
std::string realJvmLibrary();
// The JVMs that run in this process, through the JVM library that the launcher opened.
std::vector<JavaVM*> runningJvms();
// GetEnv of the current thread: JNI_OK when attached, JNI_EDETACHED when not.
jint threadAttachState(JavaVM* jvm);


// Sends message and reads the whole reply on the calling thread.
Bytes sendAndRead(IReceiver* receiver, const Bytes& message);
// A command for Java: a PlainCommand that is no health check.
Bytes javaCommand(const std::string& payload);
// A LoadLibraryCommand naming path.
Bytes loadLibraryCommand(const std::string& path);

// The runtime info as a failure shows it: the text behind "\nRUNTIME INFO:\n" of a read without
// a reply, made on a thread of its own so that no reply of the caller is touched.
std::string runtimeInfo(IReceiver* receiver);

// The options of the running JVM as the probe receiver reports them, less the one that the test
// environment adds through JAVA_TOOL_OPTIONS. The JVM leaves the class path out of this list; the
// runtime info shows it.
std::vector<std::string> jvmOptions(IReceiver* receiver);
// The library path option of a JVM created with JAVA_HOME of the test JDK.
std::string libraryPathOption();

void setEnvironment(const char* name, const std::string& value);
