// Failure reporting through the exports: the line on standard error, the daily error log, the
// telemetry event, and the configuration facade's rules when the Configs library is broken or
// missing. Failures are provoked through a transmitter of the staged library, or of a copy of
// the staged tree with siblings replaced or left out.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include <ostrelink/IReceiver.h>
#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeFactories.h>

#include "common/Calls.h"
#include "common/HostLibrary.h"
#include "common/StageCopy.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

const std::string shortText = "Message byte array length is less than 11";
const std::string supportText =
    "\nIf the error persists, contact support on: support@ostrelink.dev";

// A fresh directory under the test work directory, named after the running test, in which the
// telemetry of the process goes to "telemetry.txt".
std::string freshDirectory() {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    const fs::path directory = fs::current_path() / "entry-tmp" /
                               (std::string(test->test_suite_name()) + "." + test->name());
    fs::remove_all(directory);
    fs::create_directories(directory);
    setenv("OSTRELINK_TELEMETRY_FILE", (directory / "telemetry.txt").c_str(), 1);
    return fs::canonical(directory).string();
}

// The content of a file, which is then removed.
std::string take(const std::string& path) {
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    fs::remove(path);
    return content.str();
}

std::string today() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::ostringstream text;
    text << std::put_time(&local, "%Y-%m-%d");
    return text.str();
}

// Today's error log in directory, taken, each record's time stamp and thread id made a "|".
std::string takeLog(const std::string& directory) {
    static const std::regex stamp(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\tThread ID: [^\t\n]+\t)");
    return std::regex_replace(take(directory + "/_OstrelinkNativeErrorLogger_" + today() + ".txt"),
                              stamp, "|");
}

std::string event(const std::string& text) {
    return "Native exception\t" + text + "\tUnknown\n";
}

std::string failWith(const HostLibrary& library, Bytes message) {
    auto* transmitter = library.get<Ostrelink::Native::Interfaces::CreateTransmitterFn>(
        "CreateTransmitter")(RuntimeOperationMode::Calling);
    return failureOf(
        [&] { transmitter->SendCommand(message.data(), static_cast<int>(message.size())); });
}

std::string failShort(const HostLibrary& library) {
    return failWith(library, Bytes(5, 0));
}

int setWorkingDirectory(const HostLibrary& library, const std::string& path) {
    return library.get<int (*)(std::string)>(
        "_Z23SetWorkingDirectoryPathNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")(path);
}

int setConfigSource(const HostLibrary& library, const std::string& source) {
    return library.get<int (*)(std::string)>(
        "_Z15SetConfigSourceNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")(source);
}

TEST(AtStartUp, MakesTheOneTransmitter) {
    const auto getTransmitter =
        HostLibrary::jvmRuntime().get<Ostrelink::Native::Interfaces::GetTransmitterFn>(
            "GetTransmitter");
    ASSERT_EQ(getTransmitter(), nullptr);
    HostLibrary::jvmRuntime().get<void (*)()>("_Z9AtStartUpv")();
    EXPECT_NE(getTransmitter(), nullptr);
}

// A failure writes a line with the support text to standard error, a record to the log of the
// day in the working directory, and an event without line ends to telemetry. A launcher failure
// is made once as raised and once more with the runtime info behind it: two records. Without a
// directory to write in there is no record, and the failure still arrives.
TEST(ErrorLog, EveryFailureGoesToStandardErrorTheLogOfTheDayAndTelemetry) {
    const std::string directory = freshDirectory();
    const HostLibrary& library = HostLibrary::jvmRuntime();
    ASSERT_EQ(setWorkingDirectory(library, directory), 0);
    std::ostringstream thread;
    thread << std::this_thread::get_id();
    const std::string stamp = today() + R"( \d{2}:\d{2}:\d{2}\tThread ID: )" + thread.str() + "\t";

    testing::internal::CaptureStderr();
    EXPECT_EQ(failShort(library), shortText);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(err, std::regex(stamp + shortText + supportText + "\n"))) << err;
    // The library of the Python runtime is not installed: a text of three lines.
    const std::string multiLine = failWith(library, makeMessage(5, 0, "x", 2));
    EXPECT_THAT(multiLine, HasSubstr("\nCannot load: "));
    std::string flattened = multiLine;
    flattened.erase(std::remove(flattened.begin(), flattened.end(), '\n'), flattened.end());
    EXPECT_EQ(take(directory + "/telemetry.txt"), event(shortText) + event(flattened));
    auto* receiver = library.get<Ostrelink::Native::Interfaces::CreateReceiverFn>("CreateReceiver")(
        RuntimeOperationMode::Called);
    unsigned char buffer[1];
    const std::string thrown = failureOf([&] { receiver->ReadResponse(buffer, 1); });
    const std::string raised = "JVM Launcher: Exception code 041.\nError while reading response";
    EXPECT_THAT(thrown, testing::StartsWith(raised + "\nRUNTIME INFO:\n"));
    const std::string log = take(directory + "/_OstrelinkNativeErrorLogger_" + today() + ".txt");
    EXPECT_EQ(std::regex_replace(log, std::regex(stamp), "|"),
              "|" + shortText + "\n|" + multiLine + "\n|" + raised + "\n|" + thrown + "\n");

    std::ofstream(directory + "/file") << "not a directory\n";
    for (const std::string& unusable : {directory + "/missing/deeper", directory + "/file"}) {
        ASSERT_EQ(setWorkingDirectory(library, unusable), 0);
        EXPECT_EQ(failShort(library), shortText);
    }
    EXPECT_FALSE(fs::exists(directory + "/missing"));
    EXPECT_EQ(take(directory + "/file"), "not a directory\n");
    EXPECT_THAT(take(directory + "/telemetry.txt"),
                testing::EndsWith(event(shortText) + event(shortText)));
}

// The level from OSTRELINK_LOGGING_LEVEL and from the configuration, seen through the line on
// standard error: level 0 writes none, 1 and 2 write one. The log takes every record.
TEST(StandardError, LevelFromTheVariableAndFromTheConfiguration) {
    const struct {
        const char* variable;    // nullptr: unset
        const char* configured;  // nullptr: no logging.level line
        bool line;
    } cases[] = {
        {nullptr, nullptr, true},     {"OFF", nullptr, false},  {"off", "all", false},
        {"RuntimeInfo", "off", true}, {"ALL", "off", true},     {"verbose", "off", false},
        {"", "off", false},           {" off", nullptr, true},  {" off", "off", false},
        {nullptr, "OFF", false},      {nullptr, "debug", true}, {nullptr, "", true},
        {"all", "off", true},
    };
    const std::string directory = freshDirectory();
    std::string records;
    for (const auto& each : cases) {
        const std::string source = directory + "/" + std::to_string(&each - cases) + ".conf";
        std::ofstream(source) << "workingDirectory = " << directory << "\n"
                              << (each.configured != nullptr
                                      ? "logging.level = " + std::string(each.configured) + "\n"
                                      : std::string());
        ASSERT_EQ(setConfigSource(HostLibrary::jvmRuntime(), source), 0);
        if (each.variable != nullptr) {
            setenv("OSTRELINK_LOGGING_LEVEL", each.variable, 1);
        } else {
            unsetenv("OSTRELINK_LOGGING_LEVEL");
        }
        testing::internal::CaptureStderr();
        EXPECT_EQ(failShort(HostLibrary::jvmRuntime()), shortText);
        EXPECT_EQ(testing::internal::GetCapturedStderr().find(shortText) != std::string::npos,
                  each.line)
            << (each.variable != nullptr ? each.variable : "(unset)") << ", "
            << (each.configured != nullptr ? each.configured : "(none)");
        records += "|" + shortText + "\n";
    }
    EXPECT_EQ(takeLog(directory), records);
}

// The Configs library of the copy (ConfigsVariant.cpp) lacks GetLoggingLevel,
// GetWorkingDirectory, SetWorkingDirectory and more, and its SetConfigSource throws: the log goes
// to the current directory, at the default level. An operation with a default answer answers it
// after reporting a missing export once; one without raises the failure again, so it is
// reported twice. What the Configs library itself throws is no failure of this library: a
// default operation answers the default and reports nothing, a setter passes it on once.
TEST(BrokenConfigs, EachOperationFailsByItsOwnRule) {
    const std::string directory = freshDirectory();
    const std::string telemetry = directory + "/telemetry.txt";
    const std::string native = copyStage(directory, {"libConfigs.so"});
    fs::copy_file(ENTRY_CONFIGS_VARIANT, native + "libConfigs.so");
    fs::copy_file(ENTRY_FACADE_PROBE, native + "libEntryFacadeProbe.so");
    const HostLibrary copy(native + "libOstrelinkJvmRuntimeNative.so");
    const HostLibrary probe(native + "libEntryFacadeProbe.so");
    ASSERT_EQ(chdir(directory.c_str()), 0);
    const auto missing = [](const std::string& name) {
        return name + " function not found in Utils library";
    };
    // Each report asks for the level and the directory, finds neither, and says so without
    // asking again: in telemetry only, with no record.
    const auto reported = [&missing](const std::string& text) {
        return event(missing("GetLoggingLevel")) + event(missing("GetWorkingDirectory")) +
               event(missing("GetWorkingDirectory")) + event(text);
    };

    testing::internal::CaptureStderr();
    EXPECT_EQ(failShort(copy), shortText);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr(shortText + supportText));
    EXPECT_THAT(err, HasSubstr(missing("GetLoggingLevel")));
    EXPECT_EQ(takeLog(directory), "|" + shortText + "\n");

    take(telemetry);
    EXPECT_EQ(failureOf([&] { setWorkingDirectory(copy, directory); }),
              missing("SetWorkingDirectory"));
    EXPECT_EQ(takeLog(directory),
              "|" + missing("SetWorkingDirectory") + "\n|" + missing("SetWorkingDirectory") + "\n");
    EXPECT_EQ(take(telemetry),
              reported(missing("SetWorkingDirectory")) + reported(missing("SetWorkingDirectory")));

    EXPECT_EQ(failureOf([&] { setConfigSource(copy, "anything"); }),
              "Configs variant: source refused");
    EXPECT_EQ(takeLog(directory), "|Configs variant: source refused\n");
    // What is not a std::exception leaves the export as one, with a text of its own.
    EXPECT_THAT(failureOf([&] { setConfigSource(copy, "throw struct"); }),
                HasSubstr("Exception code 035"));
    takeLog(directory);

    EXPECT_EQ(probe.get<int (*)()>("ProbeGetChannelPort")(), 0);
    EXPECT_EQ(probe.get<std::string (*)()>("ProbeGetChannelHost")(), "");
    EXPECT_EQ(probe.get<int (*)()>("ProbeGetProxyPort")(), 3128);
    EXPECT_EQ(failureOf([&] { probe.get<std::string (*)()>("ProbeGetConfigSource")(); }),
              missing("GetConfigSource"));
    EXPECT_EQ(takeLog(directory), "|" + missing("GetChannelPort") + "\n|" +
                                      missing("GetConfigSource") + "\n|" +
                                      missing("GetConfigSource") + "\n");

    // A copy of the exception carries the text and reports nothing again.
    take(telemetry);
    EXPECT_EQ(probe.get<std::string (*)(const char*)>("ProbeCopyOfException")("copied\ntext"),
              "copied\ntext");
    EXPECT_EQ(takeLog(directory), "|copied\ntext\n");
    EXPECT_EQ(take(telemetry), reported("copiedtext"));
}

// Without the Configs library failures still end and reach their raiser, the log going to the
// current directory; without the Utils library there is no telemetry, and nothing else changes.
TEST(MissingSiblings, FailuresEndAndReachTheirRaiser) {
    const std::string directory = freshDirectory();
    const std::string native = copyStage(directory, {"libConfigs.so", "libUtils.so"});
    const HostLibrary copy(native + "libOstrelinkJvmRuntimeNative.so");
    ASSERT_EQ(chdir(directory.c_str()), 0);
    const std::string loadFailure =
        "Ostrelink Native Exception: Exception code 001. \nCannot load: " + native +
        "libConfigs.so. \nError: File not found.";
    testing::internal::CaptureStderr();
    EXPECT_EQ(failShort(copy), shortText);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr(shortText + supportText));
    EXPECT_THAT(err, HasSubstr(loadFailure));
    EXPECT_EQ(failureOf([&] { setConfigSource(copy, directory + "/any.conf"); }), loadFailure);
    EXPECT_EQ(takeLog(directory), "|" + shortText + "\n|" + loadFailure + "\n");
    EXPECT_FALSE(fs::exists(directory + "/telemetry.txt"));
}

}  // namespace
