#include <unistd.h>

#include <fstream>

#include "LauncherTesting.h"

namespace fs = std::filesystem;

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
    fs::create_directories(jars + "/d.jar");
    fs::create_directory(here);
    for (const std::string& file :
         {here + "/lib.so", here + "/x.jar", jars + "/c.txt", jars + "/d.jar/inner.jar"}) {
        std::ofstream(file) << "x";
    }
    fs::create_symlink(here + "/x.jar", jars + "/link.JAR");
    ASSERT_EQ(chdir(here.c_str()), 0);
    for (const std::string& path : {here + "/lib.so", here + "/lib.so", std::string("lib.so"),
                                    std::string(), here + "/", jars}) {
        EXPECT_EQ(sendAndRead(receiver, makeMessage(2, 1, path)), acknowledgeBytes()) << path;
    }
    EXPECT_THAT(sendFailure(receiver, makeMessage(2, 1, "no/such/library.jar")),
                StartsWith("JVM Launcher: Exception code 004. \nCannot find file: "
                           "no/such/library.jar\n\nRUNTIME INFO:\nLoaded custom libraries:\n" +
                           here + "/lib.so\n"));
    ASSERT_EQ(sendAndRead(receiver, javaCommand("start")), javaCommand("start"));
    EXPECT_EQ(sendAndRead(receiver, makeMessage(2, 1, testJar("probe"))), acknowledgeBytes());
    const std::string lib = here + "/lib.so", x = here + "/x.jar", link = jars + "/link.JAR";
    EXPECT_EQ(runtimeInfo(receiver), "Loaded custom libraries:\n" + lib + "\nlib.so\n" + x + "\n" +
                                         link + "\n" + testJar("probe") +
                                         "\n\njava.class.path=" + copy.jarOnClassPath + ":" + lib +
                                         ":lib.so:" + x + ":" + link + "\n" + nativeInfo);
}
