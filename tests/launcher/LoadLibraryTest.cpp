#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include "LauncherTesting.h"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Entries are path texts: the same text twice is one entry, the same file by two texts is two;
// a relative path that exists stays relative, and a file need not be a jar. A directory gives
// its jar files, whatever the case of ".jar", one level deep, a link counting by what it points
// to; the empty path is the current directory. A missing path gives 004 and adds nothing.
// The entries reach the class path of the JVM this library creates, in order, behind the
// runtime jar; one after the start shows in the runtime info only, which lists the entries first
// and then leaves an empty line.
TEST(LoadLibrary, EntriesFollowTheirRulesAndThoseBeforeTheStartReachTheClassPath) {
    const InstallationCopy copy;
    IReceiver* receiver = copy.receiver();
    const std::string here = copy.directory + "/here", jars = copy.directory + "/jars";
    for (const std::string& directory : {here, jars, jars + "/d.jar"}) {
        fs::create_directory(directory);
    }
    for (const std::string& file : {here + "/lib.so", here + "/x.jar", jars + "/a.jar",
                                    jars + "/B.JAR", jars + "/c.txt", jars + "/d.jar/inner.jar"}) {
        std::ofstream(file) << "x";
    }
    fs::create_symlink(jars + "/a.jar", jars + "/link.jar");
    ASSERT_EQ(chdir(here.c_str()), 0);
    for (const std::string& path : {here + "/lib.so", here + "/lib.so", std::string("lib.so"),
                                    std::string(), here + "/", jars}) {
        EXPECT_EQ(sendAndRead(receiver, makeMessage(2, 1, path)), acknowledgeBytes()) << path;
    }
    EXPECT_THAT(sendFailure(receiver, makeMessage(2, 1, "no/such/library.jar")),
                StartsWith("JVM Launcher: Exception code 004. \nCannot find file: "
                           "no/such/library.jar\n\nRUNTIME INFO:\nLoaded custom "
                           "libraries:\n" +
                           here + "/lib.so\n"));
    Lines lines;
    std::istringstream info(runtimeInfo(receiver));
    for (std::string line; std::getline(info, line);) {
        lines.push_back(line);
    }
    ASSERT_GT(lines.size(), 7U);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 4),
              (Lines{"Loaded custom libraries:", here + "/lib.so", "lib.so", here + "/x.jar"}));
    EXPECT_EQ(std::set<std::string>(lines.begin() + 4, lines.begin() + 7),
              (std::set<std::string>{jars + "/a.jar", jars + "/B.JAR", jars + "/link.jar"}));

    ASSERT_EQ(sendAndRead(receiver, javaCommand("start")), javaCommand("start"));
    EXPECT_EQ(sendAndRead(receiver, makeMessage(2, 1, testJar("probe"))), acknowledgeBytes());
    std::string listed, classPath = copy.jarOnClassPath();
    for (std::size_t i = 1; i < 7; ++i) {
        listed += lines[i] + "\n";
        classPath += ":" + lines[i];
    }
    EXPECT_EQ(runtimeInfo(receiver), "Loaded custom libraries:\n" + listed + testJar("probe") +
                                         "\n\njava.class.path=" + classPath + "\n" + nativeInfo);
}
