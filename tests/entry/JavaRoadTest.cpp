// The natives driven from a real JVM started by the `java` launcher, in a child process whose
// standard error, error log and telemetry file the test reads. The Java side is NativesProbe.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "common/StageCopy.h"
#include "entry/EntryTestSupport.h"

using EntryTest::ChildResult;
using testing::HasSubstr;
using testing::Not;

namespace {

const char* const shortText = "Message byte array length is less than 11";
const char* const supportText =
    "\nIf the error persists, contact support on: support@ostrelink.dev";

// Runs one probe case with the jar of stageDirectory (the staged tree unless a copy is named),
// so that TransmitterWrapper loads the native library of that tree.
ChildResult runProbe(const std::string& probeCase, const std::string& argument,
                     const std::string& workingDirectory,
                     std::map<std::string, std::string> environment,
                     const std::string& stageDirectory = OSTRELINK_STAGE_DIR) {
    const std::string jar = stageDirectory + "/Binaries/Jvm/" + ENTRY_JAR_NAME;
    environment.emplace("OSTRELINK_LOGGING_LEVEL", "");
    if (std::string(ENTRY_JAVA_PRELOAD).empty()) {
        environment.emplace("LD_PRELOAD", "");
    } else {
        // A sanitizer build: its runtime has to come first in `java`. The launcher keeps its
        // own allocations until exit, so leaks are checked in the native hosts, not here.
        environment.emplace("LD_PRELOAD", ENTRY_JAVA_PRELOAD);
        environment.emplace("ASAN_OPTIONS",
                            "handle_segv=0:allow_user_segv_handler=1:detect_leaks=0");
    }
    environment.emplace("OSTRELINK_TELEMETRY_FILE", "");
    ChildResult result =
        EntryTest::runChild({ENTRY_JAVA, "-Xcheck:jni", "-cp", jar + ":" + ENTRY_PROBE_CLASSES,
                             "NativesProbe", probeCase, argument},
                            workingDirectory, environment);
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_THAT(result.out, HasSubstr("PASS " + probeCase)) << result.out << result.err;
    return result;
}

std::vector<std::string> loggedMessages(const std::string& directory) {
    std::vector<std::string> messages;
    for (const std::string& record :
         EntryTest::records(EntryTest::readFile(directory + "/" + EntryTest::todaysLogName()))) {
        messages.push_back(EntryTest::messageOf(record));
    }
    return messages;
}

TEST(JavaRoad, DefaultLevelWritesTheLineWithTheSupportText) {
    const std::string directory = EntryTest::freshDirectory();
    const ChildResult result = runProbe("logShort", directory, directory, {});
    EXPECT_THAT(result.err, HasSubstr(std::string(shortText) + supportText));
    EXPECT_THAT(loggedMessages(directory), testing::ElementsAre(shortText));
}

TEST(JavaRoad, LevelOffSilencesStandardErrorButNotTheLog) {
    const std::string directory = EntryTest::freshDirectory();
    const ChildResult result =
        runProbe("logShort", directory, directory, {{"OSTRELINK_LOGGING_LEVEL", "off"}});
    EXPECT_THAT(result.err, Not(HasSubstr(shortText)));
    EXPECT_THAT(loggedMessages(directory), testing::ElementsAre(shortText));
}

TEST(JavaRoad, LevelAndWorkingDirectoryFromTheConfigurationFile) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string logDirectory = directory + "/logs";
    std::filesystem::create_directories(logDirectory);
    const std::string source = directory + "/settings.conf";
    EntryTest::writeFile(source,
                         "# settings of the test\nlogging.level = Off\n"
                         "workingDirectory = " +
                             logDirectory + "\n");
    const ChildResult result = runProbe("sourceAndShort", source, directory, {});
    EXPECT_THAT(result.err, Not(HasSubstr(shortText)));
    EXPECT_THAT(loggedMessages(logDirectory), testing::ElementsAre(shortText));
    EXPECT_FALSE(EntryTest::exists(directory + "/" + EntryTest::todaysLogName()));

    // The variable wins over the file.
    const ChildResult loud =
        runProbe("sourceAndShort", source, directory, {{"OSTRELINK_LOGGING_LEVEL", "ALL"}});
    EXPECT_THAT(loud.err, HasSubstr(std::string(shortText) + supportText));
}

TEST(JavaRoad, TelemetryEventsReachTheUtilsLibrary) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string telemetry = directory + "/telemetry.txt";
    runProbe("logShort", directory, directory, {{"OSTRELINK_TELEMETRY_FILE", telemetry}});
    EXPECT_THAT(EntryTest::lines(EntryTest::readFile(telemetry)),
                testing::ElementsAre(std::string("Native exception\t") + shortText + "\tUnknown"));
}

TEST(JavaRoad, WithoutTheUtilsLibraryNothingChangesForJava) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string telemetry = directory + "/telemetry.txt";
    copyStage(directory, {"libUtils.so"});
    runProbe("logShort", directory, directory, {{"OSTRELINK_TELEMETRY_FILE", telemetry}},
             directory + "/stage");
    EXPECT_THAT(loggedMessages(directory), testing::ElementsAre(shortText));
    EXPECT_FALSE(EntryTest::exists(telemetry));
}

TEST(JavaRoad, WithoutTheConfigsLibraryFailuresEndAndKeepTheirText) {
    const std::string directory = EntryTest::freshDirectory();
    const std::string native = copyStage(directory, {"libConfigs.so"});
    const ChildResult result =
        runProbe("withoutConfigs", native + "libConfigs.so", directory, {}, directory + "/stage");
    EXPECT_THAT(result.err, HasSubstr(std::string(shortText) + supportText));
    // The working directory can't be asked for: the records go to the current directory.
    const std::vector<std::string> messages = loggedMessages(directory);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_THAT(messages[0], HasSubstr("Cannot load: " + native + "libConfigs.so"));
    EXPECT_EQ(messages[1], shortText);
}

}  // namespace
