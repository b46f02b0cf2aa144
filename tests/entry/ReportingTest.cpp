// Failure reporting through the exports: the line on standard error, the daily error log, the
// telemetry event, and the configuration facade's rules when the Configs library is broken or
// missing. Failures are provoked through a transmitter of the staged library (or of a copy of
// the staged tree with one sibling replaced or left out).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <ostrelink/IReceiver.h>
#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeFactories.h>

#include "common/HostLibrary.h"
#include "common/Messages.h"
#include "common/StageCopy.h"
#include "entry/EntryTestSupport.h"

using EntryTest::records;
using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::CreateTransmitterFn;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

using SetConfigSourceFn = int (*)(std::string);
using SetWorkingDirectoryPathFn = int (*)(std::string);

const char* const shortText = "Message byte array length is less than 11";
const char* const supportText =
    "\nIf the error persists, contact support on: support@ostrelink.dev";

const char* const setConfigSourceSymbol =
    "_Z15SetConfigSourceNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
const char* const setWorkingDirectorySymbol =
    "_Z23SetWorkingDirectoryPathNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";

// One runtime library (the staged one, or the one of a copy of the tree) and its transmitter.
class Library {
public:
    explicit Library(HostLibrary& library) : m_library(library) {}

    ITransmitter* transmitter() {
        return m_library.get<CreateTransmitterFn>("CreateTransmitter")(
            RuntimeOperationMode::Calling);
    }
    int setConfigSource(const std::string& source) {
        return m_library.get<SetConfigSourceFn>(setConfigSourceSymbol)(source);
    }
    int setWorkingDirectory(const std::string& path) {
        return m_library.get<SetWorkingDirectoryPathFn>(setWorkingDirectorySymbol)(path);
    }

    // The text that reaches the raiser's caller.
    std::string failShort() { return failWith(Bytes(5, 0)); }
    // A three-line text: the library of the Python runtime is not installed.
    std::string failMultiLine() {
        Bytes message = makeMessage(5, 0, "x", 2);
        return failWith(message);
    }

private:
    std::string failWith(Bytes message) {
        try {
            transmitter()->SendCommand(message.data(), static_cast<int>(message.size()));
        } catch (const std::exception& exception) {
            return exception.what();
        }
        ADD_FAILURE() << "no failure";
        return {};
    }

    HostLibrary& m_library;
};

Library staged() {
    return Library(HostLibrary::jvmRuntime());
}

std::string threadIdText() {
    std::ostringstream text;
    text << std::this_thread::get_id();
    return text.str();
}

std::size_t count(const std::vector<std::string>& items, const std::string& item) {
    return static_cast<std::size_t>(std::count(items.begin(), items.end(), item));
}

TEST(ErrorLog, RecordsOfOneDayGoToOneFileInTheRecordFormat) {
    const std::string directory = EntryTest::freshDirectory();
    Library library = staged();
    ASSERT_EQ(library.setWorkingDirectory(directory), 0);

    EXPECT_EQ(library.failShort(), shortText);
    const std::string multiLine = library.failMultiLine();
    EXPECT_THAT(multiLine, HasSubstr("\nCannot load: "));
    EXPECT_EQ(library.failShort(), shortText);

    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        files.push_back(entry.path().filename().string());
    }
    ASSERT_THAT(files, ElementsAre(EntryTest::todaysLogName()));
    const std::string content = EntryTest::readFile(directory + "/" + files[0]);
    const std::vector<std::string> found = records(content);
    ASSERT_EQ(found.size(), 3u) << content;

    // Time stamp, tab, "Thread ID: ", the std::thread::id text, tab, message, one "\n".
    const std::string date =
        files[0].substr(std::string("_OstrelinkNativeErrorLogger_").size(), 10);
    const std::regex format(date + R"( \d{2}:\d{2}:\d{2}\tThread ID: )" + threadIdText() + "\t");
    for (const std::string& record : found) {
        EXPECT_TRUE(std::regex_search(record, format)) << record;
        EXPECT_EQ(record.find("\t"), 19u) << record;
        EXPECT_THAT(record, Not(HasSubstr("support@")));
        EXPECT_THAT(record, Not(HasSubstr("Unknown")));
    }
    EXPECT_EQ(EntryTest::messageOf(found[0]), shortText);
    EXPECT_EQ(EntryTest::messageOf(found[1]), multiLine);
    EXPECT_EQ(EntryTest::messageOf(found[2]), shortText);
    EXPECT_EQ(content.back(), '\n');
}

// A launcher failure is constructed once as raised and once more with the runtime info behind
// it: two records, the second one spanning several lines.
TEST(ErrorLog, ATranslatedFailureWritesTwoRecords) {
    const std::string directory = EntryTest::freshDirectory();
    Library library = staged();
    ASSERT_EQ(library.setWorkingDirectory(directory), 0);
    IReceiver* receiver = HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver")(
        RuntimeOperationMode::Called);
    ASSERT_NE(receiver, nullptr);

    const std::string raised = "JVM Launcher: Exception code 041.\nError while reading response";
    std::string thrown;
    try {
        unsigned char buffer[17] = {};
        receiver->ReadResponse(buffer, 17);
        FAIL() << "ReadResponse returned";
    } catch (const std::exception& exception) {
        thrown = exception.what();
    }
    EXPECT_EQ(thrown.rfind(raised + "\nRUNTIME INFO:\n", 0), 0u) << thrown;

    const auto found = records(EntryTest::readFile(directory + "/" + EntryTest::todaysLogName()));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(EntryTest::messageOf(found[0]), raised);
    EXPECT_EQ(EntryTest::messageOf(found[1]), thrown);
}

TEST(ErrorLog, MissingDirectoryOrAFileGivesNoRecordAndTheFailureStillArrives) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string telemetry = directory + "/telemetry.txt";
    setenv("OSTRELINK_TELEMETRY_FILE", telemetry.c_str(), 1);
    Library library = staged();

    ASSERT_EQ(library.setWorkingDirectory(directory + "/missing/deeper"), 0);
    EXPECT_EQ(library.failShort(), shortText);
    EXPECT_FALSE(EntryTest::exists(directory + "/missing"));

    const std::string file = directory + "/plain-file";
    EntryTest::writeFile(file, "not a directory\n");
    ASSERT_EQ(library.setWorkingDirectory(file), 0);
    EXPECT_EQ(library.failShort(), shortText);
    EXPECT_EQ(EntryTest::readFile(file), "not a directory\n");

    // No record, but the telemetry step still ran for both.
    const std::string event = std::string("Native exception\t") + shortText + "\tUnknown";
    EXPECT_EQ(count(EntryTest::lines(EntryTest::readFile(telemetry)), event), 2u);
}

TEST(StandardError, LineCarriesTheSupportTextAndWhatDoesNot) {
    const std::string directory = EntryTest::freshDirectory();
    Library library = staged();
    ASSERT_EQ(library.setWorkingDirectory(directory), 0);

    testing::internal::CaptureStderr();
    const std::string text = library.failShort();
    const std::string err = testing::internal::GetCapturedStderr();

    EXPECT_EQ(text, shortText);
    const std::regex line(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\tThread ID: )" + threadIdText() +
                          "\t" + shortText + supportText + "\n");
    EXPECT_TRUE(std::regex_search(err, line)) << err;
}

// The level from OSTRELINK_LOGGING_LEVEL and from the configuration, seen through the line on
// standard error: level 0 writes none, 1 and 2 write one.
TEST(StandardError, LevelFromTheVariableAndFromTheConfiguration) {
    struct Case {
        const char* variable;    // nullptr: unset
        const char* configured;  // nullptr: no logging.level line
        bool line;
    };
    const Case cases[] = {
        {nullptr, nullptr, true},     {"OFF", nullptr, false},  {"off", "all", false},
        {"RuntimeInfo", "off", true}, {"ALL", "off", true},     {"verbose", "off", false},
        {"", "off", false},           {" off", nullptr, true},  {" off", "off", false},
        {nullptr, "OFF", false},      {nullptr, "debug", true}, {nullptr, "", true},
        {"all", "off", true},
    };
    const std::string directory = EntryTest::freshDirectory();
    Library library = staged();
    int index = 0;
    for (const Case& each : cases) {
        const std::string source = directory + "/level" + std::to_string(index++) + ".conf";
        std::string content = "workingDirectory = " + directory + "\n";
        if (each.configured != nullptr) {
            content += std::string("logging.level = ") + each.configured + "\n";
        }
        EntryTest::writeFile(source, content);
        ASSERT_EQ(library.setConfigSource(source), 0);
        if (each.variable != nullptr) {
            setenv("OSTRELINK_LOGGING_LEVEL", each.variable, 1);
        } else {
            unsetenv("OSTRELINK_LOGGING_LEVEL");
        }
        testing::internal::CaptureStderr();
        EXPECT_EQ(library.failShort(), shortText);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err.find(shortText) != std::string::npos, each.line)
            << "variable " << (each.variable != nullptr ? each.variable : "(unset)")
            << ", configured " << (each.configured != nullptr ? each.configured : "(none)");
    }
}

TEST(Telemetry, EveryFailureSendsItsTextWithoutLineEnds) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string telemetry = directory + "/telemetry.txt";
    setenv("OSTRELINK_TELEMETRY_FILE", telemetry.c_str(), 1);
    Library library = staged();
    ASSERT_EQ(library.setWorkingDirectory(directory), 0);

    const std::string multiLine = library.failMultiLine();
    ASSERT_THAT(multiLine, HasSubstr("\n"));
    EXPECT_EQ(library.failShort(), shortText);

    std::string flattened = multiLine;
    flattened.erase(std::remove(flattened.begin(), flattened.end(), '\n'), flattened.end());
    EXPECT_THAT(EntryTest::lines(EntryTest::readFile(telemetry)),
                ElementsAre("Native exception\t" + flattened + "\tUnknown",
                            std::string("Native exception\t") + shortText + "\tUnknown"));
}

// The Configs library of the copy (ConfigsVariant.cpp) lacks GetLoggingLevel,
// GetWorkingDirectory, SetWorkingDirectory and more, and its SetConfigSource throws.
class BrokenConfigs : public testing::Test {
protected:
    void SetUp() override {
        m_directory = EntryTest::freshDirectory();
        m_telemetry = m_directory + "/telemetry.txt";
        setenv("OSTRELINK_TELEMETRY_FILE", m_telemetry.c_str(), 1);
        m_native = copyStage(m_directory, {"libConfigs.so"});
        std::filesystem::copy_file(ENTRY_CONFIGS_VARIANT, m_native + "libConfigs.so");
        m_copy = std::make_unique<HostLibrary>(m_native + "libOstrelinkJvmRuntimeNative.so");
        // Without GetWorkingDirectory the log goes to the current directory.
        m_logDirectory = m_directory + "/cwd";
        std::filesystem::create_directories(m_logDirectory);
        ASSERT_EQ(chdir(m_logDirectory.c_str()), 0);
    }

    std::vector<std::string> loggedMessages() const {
        std::vector<std::string> messages;
        for (const std::string& record :
             records(EntryTest::readFile(m_logDirectory + "/" + EntryTest::todaysLogName()))) {
            messages.push_back(EntryTest::messageOf(record));
        }
        return messages;
    }
    std::vector<std::string> events() const {
        return EntryTest::lines(EntryTest::readFile(m_telemetry));
    }

    std::string m_directory;
    std::string m_native;
    std::string m_telemetry;
    std::string m_logDirectory;
    std::unique_ptr<HostLibrary> m_copy;
};

TEST_F(BrokenConfigs, AMissingSetterIsRaisedAgainAfterTwoReports) {
    Library library(*m_copy);
    const std::string missing = "SetWorkingDirectory function not found in Utils library";
    try {
        library.setWorkingDirectory(m_directory);
        FAIL() << "SetWorkingDirectoryPath returned";
    } catch (const std::exception& exception) {
        EXPECT_EQ(exception.what(), missing);
    }
    EXPECT_THAT(loggedMessages(), ElementsAre(missing, missing));
    EXPECT_EQ(count(events(), "Native exception\t" + missing + "\tUnknown"), 2u);
    // Each report asked for the level and the directory, found neither, and said so without
    // asking again: telemetry only, no record.
    EXPECT_EQ(
        count(events(),
              "Native exception\tGetLoggingLevel function not found in Utils library\tUnknown"),
        2u);
    EXPECT_EQ(
        count(events(),
              "Native exception\tGetWorkingDirectory function not found in Utils library\tUnknown"),
        4u);
}

TEST_F(BrokenConfigs, AThrowingSetterIsWrappedOnce) {
    Library library(*m_copy);
    try {
        library.setConfigSource("anything");
        FAIL() << "SetConfigSource returned";
    } catch (const std::exception& exception) {
        EXPECT_EQ(std::string(exception.what()), "Configs variant: source refused");
    }
    EXPECT_THAT(loggedMessages(), ElementsAre("Configs variant: source refused"));
    // What is not a std::exception leaves the export as one, with a text of its own.
    try {
        library.setConfigSource("throw struct");
        FAIL() << "SetConfigSource returned";
    } catch (const std::exception& exception) {
        EXPECT_THAT(exception.what(), HasSubstr("Exception code 035"));
    }
}

TEST_F(BrokenConfigs, OtherFailuresKeepTheirTextAndTheDefaultLevel) {
    Library library(*m_copy);
    testing::internal::CaptureStderr();
    EXPECT_EQ(library.failShort(), shortText);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr(std::string(shortText) + supportText));
    EXPECT_THAT(err, HasSubstr("GetLoggingLevel function not found in Utils library"));
    EXPECT_THAT(loggedMessages(), ElementsAre(shortText));
}

// Operations with a default answer it after reporting a missing export once; those without one
// raise the failure again, so it is reported twice. What the library itself throws is no
// failure of this library: a default operation answers the default and reports nothing.
TEST_F(BrokenConfigs, EachOperationFailsByItsOwnRule) {
    std::filesystem::copy_file(ENTRY_FACADE_PROBE, m_native + "libEntryFacadeProbe.so");
    HostLibrary probe(m_native + "libEntryFacadeProbe.so");

    EXPECT_EQ(probe.get<int (*)()>("ProbeGetChannelPort")(), 0);
    EXPECT_FALSE(probe.get<bool (*)()>("ProbeProxyExists")());
    EXPECT_EQ(probe.get<std::string (*)()>("ProbeGetChannelHost")(), "");
    EXPECT_EQ(probe.get<int (*)()>("ProbeGetProxyPort")(), 3128);
    EXPECT_EQ(probe.get<int (*)()>("ProbeGetLoggingLevel")(), 1);
    try {
        probe.get<std::string (*)()>("ProbeGetConfigSource")();
        FAIL() << "GetConfigSource returned";
    } catch (const std::exception& exception) {
        EXPECT_STREQ(exception.what(), "GetConfigSource function not found in Utils library");
    }

    EXPECT_THAT(loggedMessages(),
                ElementsAre("GetChannelPort function not found in Utils library",
                            "ProxyExists function not found in Utils library",
                            "GetLoggingLevel function not found in Utils library",
                            "GetConfigSource function not found in Utils library",
                            "GetConfigSource function not found in Utils library"));
}

TEST(Exception, ACopyCarriesTheTextAndReportsNothing) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string telemetry = directory + "/telemetry.txt";
    setenv("OSTRELINK_TELEMETRY_FILE", telemetry.c_str(), 1);
    const std::string native = copyStage(directory);
    std::filesystem::copy_file(ENTRY_FACADE_PROBE, native + "libEntryFacadeProbe.so");
    HostLibrary probe(native + "libEntryFacadeProbe.so");
    ASSERT_EQ(chdir(directory.c_str()), 0);

    testing::internal::CaptureStderr();
    EXPECT_EQ(probe.get<std::string (*)(const char*)>("ProbeCopyOfException")("copied\ntext"),
              "copied\ntext");
    const std::string err = testing::internal::GetCapturedStderr();

    EXPECT_EQ(err.find("support@"), err.rfind("support@")) << err;
    EXPECT_THAT(err, HasSubstr("\tcopied\ntext\nIf the error persists"));
    const auto found = records(EntryTest::readFile(directory + "/" + EntryTest::todaysLogName()));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(EntryTest::messageOf(found[0]), "copied\ntext");
    EXPECT_THAT(EntryTest::lines(EntryTest::readFile(telemetry)),
                ElementsAre("Native exception\tcopiedtext\tUnknown"));
}

TEST(MissingConfigs, FailuresEndAndReachTheirRaiser) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string native = copyStage(directory, {"libConfigs.so"});
    HostLibrary copy(native + "libOstrelinkJvmRuntimeNative.so");
    Library library(copy);
    ASSERT_EQ(chdir(directory.c_str()), 0);
    const std::string loadFailure =
        "Ostrelink Native Exception: Exception code 001. \nCannot load: " + native +
        "libConfigs.so. \nError: File not found.";

    testing::internal::CaptureStderr();
    EXPECT_EQ(library.failShort(), shortText);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr(std::string(shortText) + supportText));
    EXPECT_THAT(err, HasSubstr(loadFailure));

    try {
        library.setConfigSource(directory + "/any.conf");
        FAIL() << "SetConfigSource returned";
    } catch (const std::exception& exception) {
        EXPECT_EQ(exception.what(), loadFailure);
    }
    // The records land in the current directory, each failure once.
    const auto found = records(EntryTest::readFile(directory + "/" + EntryTest::todaysLogName()));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(EntryTest::messageOf(found[0]), shortText);
    EXPECT_EQ(EntryTest::messageOf(found[1]), loadFailure);
}

}  // namespace
