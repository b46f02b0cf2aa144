#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "LauncherTesting.h"

namespace fs = std::filesystem;

namespace {

void load(IReceiver* receiver, const std::string& path) {
    EXPECT_EQ(sendAndRead(receiver, makeMessage(2, 1, path)), acknowledgeBytes()) << path;
}

// The entries under "Loaded custom libraries:" of the runtime info, in order.
std::vector<std::string> entries(IReceiver* receiver) {
    const std::string info = runtimeInfo(receiver);
    const std::string heading = "Loaded custom libraries:\n";
    std::vector<std::string> found;
    for (std::size_t at = heading.size(), end = 0;
         info.rfind(heading, 0) == 0 && (end = info.find('\n', at)) != at; at = end + 1) {
        found.push_back(info.substr(at, end - at));
    }
    return found;
}

// Entries are path texts: the same text twice is one entry, the same file by two texts is two;
// a relative path that exists stays relative, and a file need not be a jar. A directory gives
// its jar files, whatever the case of ".jar", one level deep, a link counting by what it points
// to; the empty path is the current directory. A missing path gives 004 and adds nothing; one
// that the file system can't resolve (a loop of links) is no missing path: the error passes.
// The entries reach the class path of the JVM this library creates, in order, behind the
// runtime jar; one after the start shows in the runtime info only, which lists the entries first
// and then leaves an empty line.
TEST(LoadLibrary, EntriesFollowTheirRulesAndThoseBeforeTheStartReachTheClassPath) {
    const InstallationCopy copy;
    IReceiver* receiver = copy.receiver();
    const std::string here = copy.directory.path() + "/here";
    const std::string jars = copy.directory.path() + "/jars";
    const std::string none = copy.directory.path() + "/none";
    for (const std::string& directory : {here, jars, jars + "/d.jar", none}) {
        fs::create_directory(directory);
    }
    for (const std::string& file :
         {here + "/lib.so", here + "/x.jar", jars + "/a.jar", jars + "/B.JAR", jars + "/c.txt",
          jars + "/d.jar/inner.jar", none + "/readme.txt"}) {
        std::ofstream(file) << "x";
    }
    fs::create_symlink(jars + "/a.jar", jars + "/link.jar");
    fs::create_symlink(jars + "/d.jar", jars + "/dirlink.jar");
    ASSERT_EQ(chdir(here.c_str()), 0);
    for (const std::string& path : {here + "/lib.so", here + "/lib.so", std::string("lib.so"), none,
                                    std::string(), here + "/", jars}) {
        load(receiver, path);
    }
    EXPECT_THAT(
        sendFailure(receiver, makeMessage(2, 1, "no/such/library.jar")),
        testing::StartsWith("JVM Launcher: Exception code 004. \nCannot find file: "
                            "no/such/library.jar\n\nRUNTIME INFO:\nLoaded custom libraries:\n" +
                            here + "/lib.so\n"));
    const std::string loop = copy.directory.path() + "/loop";
    fs::create_symlink(loop, loop);
    Bytes command = makeMessage(2, 1, loop);
    EXPECT_THROW(receiver->SendCommand(command.data(), static_cast<int>(command.size())),
                 fs::filesystem_error);
    const auto found = entries(receiver);
    ASSERT_EQ(found.size(), 6U);
    EXPECT_EQ(std::vector<std::string>(found.begin(), found.begin() + 3),
              (std::vector<std::string>{here + "/lib.so", "lib.so", here + "/x.jar"}));
    EXPECT_EQ(std::set<std::string>(found.begin() + 3, found.end()),
              (std::set<std::string>{jars + "/a.jar", jars + "/B.JAR", jars + "/link.jar"}));

    ASSERT_EQ(sendAndRead(receiver, javaCommand("start")), javaCommand("start"));
    load(receiver, testJar("probe"));
    std::string listed, classPath = copy.runtimeJarOnClassPath();
    for (const std::string& entry : found) {
        listed += entry + "\n";
        classPath += ":" + entry;
    }
    EXPECT_EQ(runtimeInfo(receiver), "Loaded custom libraries:\n" + listed + testJar("probe") +
                                         "\n\njava.class.path=" + classPath + "\n" + nativeInfo());
}

}  // namespace
