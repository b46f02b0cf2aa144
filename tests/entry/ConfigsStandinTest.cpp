// The Configs stand-in on its own: the file format, the defaults, and that a bad source
// changes nothing. Opened by full path from the staged tree, like the facade opens it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/HostLibrary.h"
#include "entry/EntryTestSupport.h"

namespace {

using TextFn = std::string (*)();
using SetFn = int (*)(const char*);
using IntFn = int (*)();
using BoolFn = bool (*)();
using ChannelTextFn = std::string (*)(const char*, const char*);
using ChannelIntFn = int (*)(const char*, const char*);

HostLibrary& configs() {
    static HostLibrary library(HostLibrary::stagedPath("Configs"));
    return library;
}

template <typename Function>
Function get(const char* name) {
    return configs().get<Function>(name);
}

std::string failureOf(const std::string& source) {
    try {
        get<SetFn>("SetConfigSource")(source.c_str());
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no failure";
}

TEST(ConfigsStandin, DefaultsWithoutASource) {
    EXPECT_EQ(get<TextFn>("GetConfigSource")(), "");
    EXPECT_EQ(get<TextFn>("GetLoggingLevel")(), "runtimeinfo");
    EXPECT_EQ(get<TextFn>("GetWorkingDirectory")(),
              std::filesystem::current_path().generic_string());
    EXPECT_EQ(get<ChannelTextFn>("GetChannelRuntimePath")("jvm", "default"), "");
    EXPECT_EQ(get<ChannelIntFn>("GetChannelPort")("jvm", "default"), 0);
    EXPECT_FALSE(get<BoolFn>("ProxyExists")());
    EXPECT_EQ(get<IntFn>("GetProxyPort")(), 0);
}

TEST(ConfigsStandin, EveryKeyOfTheFormat) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string source = directory + "/all.conf";
    EntryTest::writeFile(source,
                         "# every key\n"
                         "\n"
                         "logging.level = all\n"
                         "workingDirectory = /var/log/ostrelink \n"
                         "jvm.default.runtimePath = /opt/jdk/lib/server/libjvm.so\n"
                         "python.main.runtimeName=Python\n"
                         "python.main.channel.type = tcp\n"
                         "python.main.channel.host = 127.0.0.1\n"
                         "python.main.channel.port = 8080\n"
                         "proxy.host = proxy.local\n"
                         "proxy.port = 3128\n"
                         "proxy.username = user\n"
                         "proxy.password = a = b\n"
                         "proxy.domain = corp\n");
    ASSERT_EQ(get<SetFn>("SetConfigSource")(source.c_str()), 0);
    EXPECT_EQ(get<TextFn>("GetConfigSource")(), source);
    EXPECT_EQ(get<TextFn>("GetLoggingLevel")(), "all");
    EXPECT_EQ(get<TextFn>("GetWorkingDirectory")(), "/var/log/ostrelink");
    EXPECT_EQ(get<ChannelTextFn>("GetChannelRuntimePath")("jvm", "default"),
              "/opt/jdk/lib/server/libjvm.so");
    EXPECT_EQ(get<ChannelTextFn>("GetRuntimeName")("python", "main"), "Python");
    EXPECT_EQ(get<ChannelTextFn>("GetChannelType")("python", "main"), "tcp");
    EXPECT_EQ(get<ChannelTextFn>("GetChannelHost")("python", "main"), "127.0.0.1");
    EXPECT_EQ(get<ChannelIntFn>("GetChannelPort")("python", "main"), 8080);
    EXPECT_EQ(get<ChannelIntFn>("GetChannelPort")("python", "other"), 0);
    EXPECT_TRUE(get<BoolFn>("ProxyExists")());
    EXPECT_EQ(get<TextFn>("GetProxyHost")(), "proxy.local");
    EXPECT_EQ(get<IntFn>("GetProxyPort")(), 3128);
    EXPECT_EQ(get<TextFn>("GetProxyUsername")(), "user");
    EXPECT_EQ(get<TextFn>("GetProxyPassword")(), "a = b");
    EXPECT_EQ(get<TextFn>("GetProxyDomain")(), "corp");

    // SetWorkingDirectory wins over the file, also after the source is set again.
    ASSERT_EQ(get<SetFn>("SetWorkingDirectory")(directory.c_str()), 0);
    EXPECT_EQ(get<TextFn>("GetWorkingDirectory")(), directory);
    ASSERT_EQ(get<SetFn>("SetConfigSource")(source.c_str()), 0);
    EXPECT_EQ(get<TextFn>("GetWorkingDirectory")(), directory);
}

TEST(ConfigsStandin, ABadSourceIsRefusedWholeAndChangesNothing) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string good = directory + "/good.conf";
    EntryTest::writeFile(good, "logging.level = off\nproxy.host = kept\n");
    ASSERT_EQ(get<SetFn>("SetConfigSource")(good.c_str()), 0);

    const std::string noEquals = directory + "/no-equals.conf";
    EntryTest::writeFile(noEquals, "logging.level = all\n\nproxy.host\n");
    EXPECT_EQ(failureOf(noEquals),
              "Configs: malformed line 3 in " + noEquals + ": expected key = value");
    const std::string noKey = directory + "/no-key.conf";
    EntryTest::writeFile(noKey, " = value\n");
    EXPECT_EQ(failureOf(noKey), "Configs: malformed line 1 in " + noKey + ": expected key = value");
    const std::string badPort = directory + "/bad-port.conf";
    EntryTest::writeFile(badPort, "logging.level = all\nproxy.port = 80a\n");
    EXPECT_EQ(failureOf(badPort),
              "Configs: malformed line 2 in " + badPort + ": proxy.port is not a port number");
    EXPECT_EQ(failureOf(directory + "/missing.conf"),
              "Configs: configuration source not found: " + directory + "/missing.conf");
    EXPECT_EQ(failureOf(directory), "Configs: configuration source not found: " + directory);

    EXPECT_EQ(get<TextFn>("GetConfigSource")(), good);
    EXPECT_EQ(get<TextFn>("GetLoggingLevel")(), "off");
    EXPECT_EQ(get<TextFn>("GetProxyHost")(), "kept");
}

}  // namespace
