#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "LauncherTesting.h"

using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

class LoadLibrary : public testing::Test {
protected:
    void SetUp() override {
        receiver = copy.createReceiver(RuntimeOperationMode::Called);
        ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    }

    void load(const std::string& path) {
        EXPECT_EQ(sendAndRead(receiver, loadLibraryCommand(path)), acknowledgeBytes()) << path;
    }

    // The entries under "Loaded custom libraries:", in order.
    std::vector<std::string> entries() {
        const std::string info = runtimeInfo(receiver);
        std::vector<std::string> lines;
        const std::string heading = "Loaded custom libraries:\n";
        if (info.rfind(heading, 0) != 0) {
            return lines;
        }
        std::size_t at = heading.size();
        while (at < info.size() && info[at] != '\n') {
            const auto end = info.find('\n', at);
            lines.push_back(info.substr(at, end - at));
            at = end + 1;
        }
        return lines;
    }

    static void touch(const std::string& path) { std::ofstream(path) << "x"; }

    InstallationCopy copy{testJar("probe")};
    TemporaryDirectory directory;
    IReceiver* receiver = nullptr;
};

// The entries reach the class path of the JVM this library creates, in order, behind the
// runtime jar; the runtime info lists them first and then leaves an empty line.
TEST_F(LoadLibrary, TwoJarsReachTheClassPathInOrder) {
    const std::string first = testJar("custom-first");
    const std::string second = testJar("custom-second");
    load(first);
    load(second);
    const Bytes command = javaCommand("start");
    ASSERT_EQ(sendAndRead(receiver, command), command);
    EXPECT_EQ(runtimeInfo(receiver), "Loaded custom libraries:\n" + first + "\n" + second +
                                         "\n\njava.class.path=" + copy.runtimeJarOnClassPath() +
                                         ":" + first + ":" + second +
                                         "\nJVM Native Launcher Runtime Info: \nJVM shared "
                                         "library search path: " +
                                         realJvmLibrary());
}

TEST_F(LoadLibrary, AnEntryAfterTheStartShowsButMissesTheClassPath) {
    const Bytes command = javaCommand("start");
    ASSERT_EQ(sendAndRead(receiver, command), command);
    load(testJar("custom-first"));
    const std::string info = runtimeInfo(receiver);
    EXPECT_THAT(info, StartsWith("Loaded custom libraries:\n" + testJar("custom-first") +
                                 "\n\njava.class.path=" + copy.runtimeJarOnClassPath() + "\n"));
}

// A directory gives its jar files, whatever the case of ".jar", one level deep; a link counts
// by what it points to.
TEST_F(LoadLibrary, ADirectoryGivesItsJarFilesOneLevelDeep) {
    const std::string dir = directory.path();
    touch(dir + "/a.jar");
    touch(dir + "/B.JAR");
    touch(dir + "/c.txt");
    fs::create_directory(dir + "/d.jar");
    touch(dir + "/d.jar/inner.jar");
    fs::create_symlink(dir + "/a.jar", dir + "/link.jar");
    fs::create_symlink(dir + "/d.jar", dir + "/dirlink.jar");
    load(dir);
    const auto found = entries();
    EXPECT_EQ(std::set<std::string>(found.begin(), found.end()),
              (std::set<std::string>{dir + "/a.jar", dir + "/B.JAR", dir + "/link.jar"}));
    EXPECT_EQ(found.size(), 3U);
}

TEST_F(LoadLibrary, ADirectoryWithoutJarsAddsNothing) {
    touch(directory.path() + "/readme.txt");
    load(directory.path());
    EXPECT_TRUE(entries().empty());
}

// Entries are path texts: the same text twice is one entry, the same file by two texts is two.
// A relative path that exists is kept relative, and a file need not be a jar.
TEST_F(LoadLibrary, DuplicatesAreByTextAndRelativePathsStayRelative) {
    const std::string dir = directory.path();
    touch(dir + "/lib.so");
    touch(dir + "/x.jar");
    ASSERT_EQ(chdir(dir.c_str()), 0);
    load(dir + "/lib.so");
    load(dir + "/lib.so");
    load("lib.so");
    load(dir);
    load(dir + "/");
    EXPECT_EQ(entries(), (std::vector<std::string>{dir + "/lib.so", "lib.so", dir + "/x.jar"}));
}

// With no path in the message the text is empty, which does not exist, so the current directory
// is taken: its jar files are added.
TEST_F(LoadLibrary, AnEmptyPathTakesTheJarsOfTheCurrentDirectory) {
    const std::string dir = directory.path();
    touch(dir + "/here.jar");
    ASSERT_EQ(chdir(dir.c_str()), 0);
    Bytes shortMessage = makeMessage(2, 1);
    ASSERT_EQ(shortMessage.size(), 24U);
    EXPECT_EQ(sendAndRead(receiver, shortMessage), acknowledgeBytes());
    EXPECT_EQ(entries(), (std::vector<std::string>{fs::current_path().string() + "/here.jar"}));
}

TEST_F(LoadLibrary, AMissingPathGives004AndChangesNothing) {
    load(testJar("custom-first"));
    Bytes healthCheck = healthCheckMessage();
    receiver->SendCommand(healthCheck.data(), static_cast<int>(healthCheck.size()));
    Bytes command = loadLibraryCommand("no/such/library.jar");
    EXPECT_THAT(
        failureOf([&] { receiver->SendCommand(command.data(), static_cast<int>(command.size())); }),
        StartsWith("JVM Launcher: Exception code 004. \nCannot find file: "
                   "no/such/library.jar\n\nRUNTIME INFO:\nLoaded custom libraries:\n" +
                   testJar("custom-first") + "\n\n"));
    Bytes reply(17, 0);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), 17), 0);
    EXPECT_EQ(reply, acknowledgeBytes());
    EXPECT_EQ(entries(), (std::vector<std::string>{testJar("custom-first")}));
}

// A path the file system can't resolve (here a loop of links) is no missing path: the error
// passes through.
TEST_F(LoadLibrary, AFileSystemErrorPassesThrough) {
    const std::string loop = directory.path() + "/loop";
    fs::create_symlink(loop, loop);
    Bytes command = loadLibraryCommand(loop);
    EXPECT_THROW(receiver->SendCommand(command.data(), static_cast<int>(command.size())),
                 fs::filesystem_error);
}

}  // namespace
