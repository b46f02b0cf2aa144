// Failure reporting through the exports: the line on standard error, the daily error log, the
// telemetry event, and the configuration facade's rules when the Configs library is broken or
// missing. Failures are provoked through a transmitter of the staged library, or of a copy of
// the staged tree with siblings replaced or left out.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <tuple>

#include <ostrelink/RuntimeFactories.h>

#include "common/Calls.h"
#include "common/HostLibrary.h"
#include "common/StageCopy.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using namespace Ostrelink::Native::Interfaces;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

const std::string shortText = "Message byte array length is less than 11";
const std::string supportText =
    "\nIf the error persists, contact support on: support@ostrelink.dev\n";

// A fresh directory named after the running test, in which the telemetry of the process goes to
// "telemetry.txt"; the process works in it.
std::string freshDirectory() {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    const fs::path directory = fs::current_path() / "entry-tmp" / test->name();
    fs::remove_all(directory);
    fs::create_directories(directory);
    setenv("OSTRELINK_TELEMETRY_FILE", (directory / "telemetry.txt").c_str(), 1);
    EXPECT_EQ(chdir(directory.c_str()), 0);
    return fs::canonical(directory).string();
}

// The content of a file, which is then removed.
std::string take(const std::string& path) {
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    fs::remove(path);
    return content.str();
}

// Today's error log in directory, taken, each record's time stamp and thread id made a "|".
std::string takeLog(const std::string& directory, const std::string& thread = "[^\t\n]+") {
    char day[16];
    const std::time_t now = std::time(nullptr);
    std::strftime(day, sizeof day, "%Y-%m-%d", std::localtime(&now));
    const std::regex stamp(std::string(day) + R"( \d{2}:\d{2}:\d{2}\tThread ID: )" + thread + "\t");
    return std::regex_replace(
        take(directory + "/_OstrelinkNativeErrorLogger_" + std::string(day) + ".txt"), stamp, "|");
}

std::string event(const std::string& text) {
    return "Native exception\t" + text + "\tUnknown\n";
}

std::string failWith(const HostLibrary& library, Bytes message = Bytes(5, 0)) {
    auto* transmitter =
        library.get<CreateTransmitterFn>("CreateTransmitter")(RuntimeOperationMode::Calling);
    return failureOf(
        [&] { transmitter->SendCommand(message.data(), static_cast<int>(message.size())); });
}

int set(const HostLibrary& library, const char* what, const std::string& value) {
    const std::string name = std::string("_Z") + std::to_string(std::string(what).size()) + what +
                             "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
    return library.get<int (*)(std::string)>(name.c_str())(value);
}

// A failure writes a line with the support text to standard error, a record to the log of the
// day in the working directory, and an event without line ends to telemetry. A launcher failure
// is made once as raised and once more with the runtime info behind it: two records. Without a
// directory to write in there is no record, and the failure still arrives.
TEST(ErrorLog, EveryFailureGoesToStandardErrorTheLogOfTheDayAndTelemetryByLevel) {
    const std::string directory = freshDirectory();
    const HostLibrary& library = HostLibrary::jvmRuntime();
    ASSERT_EQ(set(library, "SetWorkingDirectoryPath", directory), 0);
    std::ostringstream thread;
    thread << std::this_thread::get_id();

    testing::internal::CaptureStderr();
    EXPECT_EQ(failWith(library), shortText);
    EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStderr(), std::regex("^.*\t"), ""),
              shortText + supportText);
    // The library of the Python runtime is not installed: a text of three lines.
    const std::string multiLine = failWith(library, makeMessage(5, 0, "x", 2));
    EXPECT_THAT(multiLine, HasSubstr("\nCannot load: "));
    const std::string flattened = std::regex_replace(multiLine, std::regex("\n"), "");
    EXPECT_EQ(take(directory + "/telemetry.txt"), event(shortText) + event(flattened));
    unsigned char buffer[1];
    const std::string thrown = failureOf([&] {
        library.get<CreateReceiverFn>("CreateReceiver")(RuntimeOperationMode::Called)
            ->ReadResponse(buffer, 1);
    });
    const std::string raised = "JVM Launcher: Exception code 041.\nError while reading response";
    EXPECT_THAT(thrown, testing::StartsWith(raised + "\nRUNTIME INFO:\n"));
    EXPECT_EQ(takeLog(directory, thread.str()),
              "|" + shortText + "\n|" + multiLine + "\n|" + raised + "\n|" + thrown + "\n");

    std::ofstream(directory + "/file") << "not a directory\n";
    for (const std::string& unusable : {directory + "/missing/deeper", directory + "/file"}) {
        ASSERT_EQ(set(library, "SetWorkingDirectoryPath", unusable), 0);
        EXPECT_EQ(failWith(library), shortText);
    }
    EXPECT_FALSE(fs::exists(directory + "/missing"));
    EXPECT_EQ(take(directory + "/file"), "not a directory\n");
    EXPECT_THAT(take(directory + "/telemetry.txt"),
                testing::EndsWith(event(shortText) + event(shortText)));

    // The level from OSTRELINK_LOGGING_LEVEL (nullptr: unset) and from the configuration (nullptr:
    // no logging.level line), seen through the line on standard error: level 0 writes none, 1 and
    // 2 one. The log takes every record.
    const std::tuple<const char*, const char*, bool> cases[] = {
        {nullptr, nullptr, true}, {"OFF", nullptr, false},      {"off", "all", false},
        {"ALL", "off", true},     {"verbose", "off", false},    {"", "off", false},
        {" off", "off", false},   {nullptr, "OFF", false},      {nullptr, "debug", true},
        {nullptr, "", true},      {"RuntimeInfo", "off", true},
    };
    ASSERT_EQ(set(library, "SetWorkingDirectoryPath", directory), 0);
    std::string records;
    for (const auto& [variable, configured, line] : cases) {
        const std::string source = directory + "/" + std::to_string(records.size()) + ".conf";
        std::ofstream(source) << "workingDirectory = " << directory << "\n"
                              << (configured ? "logging.level = " + std::string(configured) : "");
        ASSERT_EQ(set(library, "SetConfigSource", source), 0);
        variable ? setenv("OSTRELINK_LOGGING_LEVEL", variable, 1)
                 : unsetenv("OSTRELINK_LOGGING_LEVEL");
        testing::internal::CaptureStderr();
        EXPECT_EQ(failWith(library), shortText);
        EXPECT_EQ(testing::internal::GetCapturedStderr().find(shortText) != std::string::npos, line)
            << source;
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
TEST(BrokenConfigs, EachOperationFailsByItsOwnRuleAndMissingSiblingsStopNoFailure) {
    const std::string directory = freshDirectory();
    const std::string telemetry = directory + "/telemetry.txt";
    std::string native =
        copyStage(directory, {},
                  {{"libConfigs.so", ENTRY_CONFIGS_VARIANT}, {"libProbe.so", ENTRY_FACADE_PROBE}});
    const HostLibrary copy(native + "libOstrelinkJvmRuntimeNative.so");
    const HostLibrary probe(native + "libProbe.so");
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
    EXPECT_EQ(failWith(copy), shortText);
    EXPECT_THAT(
        testing::internal::GetCapturedStderr(),
        testing::AllOf(HasSubstr(shortText + supportText), HasSubstr(missing("GetLoggingLevel"))));
    EXPECT_EQ(takeLog(directory), "|" + shortText + "\n");
    take(telemetry);

    const std::string setter = missing("SetWorkingDirectory");
    EXPECT_EQ(failureOf([&] { set(copy, "SetWorkingDirectoryPath", directory); }), setter);
    EXPECT_EQ(takeLog(directory), "|" + setter + "\n|" + setter + "\n");
    EXPECT_EQ(take(telemetry), reported(setter) + reported(setter));
    EXPECT_EQ(failureOf([&] { set(copy, "SetConfigSource", "anything"); }),
              "Configs variant: source refused");
    // What is not a std::exception leaves the export as one, with a text of its own.
    EXPECT_THAT(failureOf([&] { set(copy, "SetConfigSource", "throw struct"); }),
                HasSubstr("Exception code 035"));
    EXPECT_THAT(takeLog(directory), testing::StartsWith("|Configs variant: source refused\n|"));

    EXPECT_EQ(probe.get<int (*)()>("ProbeGetChannelPort")(), 0);
    EXPECT_EQ(probe.get<std::string (*)()>("ProbeGetChannelHost")(), "");
    EXPECT_EQ(takeLog(directory), "|" + missing("GetChannelPort") + "\n");
    // A copy of the exception carries the text and reports nothing again.
    take(telemetry);
    EXPECT_EQ(probe.get<std::string (*)(const char*)>("ProbeCopyOfException")("copied\ntext"),
              "copied\ntext");
    EXPECT_EQ(takeLog(directory), "|copied\ntext\n");
    EXPECT_EQ(take(telemetry), reported("copiedtext"));

    // Without the Configs library failures still end and reach their raiser, the log going to
    // the current directory; without the Utils library there is no telemetry.
    fs::create_directory(directory + "/bare");
    native = copyStage(directory + "/bare", {"libConfigs.so", "libUtils.so"});
    const HostLibrary bare(native + "libOstrelinkJvmRuntimeNative.so");
    const std::string loadFailure =
        "Ostrelink Native Exception: Exception code 001. \nCannot load: " + native +
        "libConfigs.so. \nError: File not found.";
    testing::internal::CaptureStderr();
    EXPECT_EQ(failWith(bare), shortText);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::AllOf(HasSubstr(shortText + supportText), HasSubstr(loadFailure)));
    EXPECT_EQ(failureOf([&] { set(bare, "SetConfigSource", directory + "/any.conf"); }),
              loadFailure);
    EXPECT_EQ(takeLog(directory), "|" + shortText + "\n|" + loadFailure + "\n");
    EXPECT_FALSE(fs::exists(directory + "/telemetry.txt"));
}

}  // namespace
