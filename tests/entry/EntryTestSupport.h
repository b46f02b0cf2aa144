#pragma once

#include <map>
#include <string>
#include <vector>

// Helpers of the entry-layer tests: scratch directories, copies of the staged tree, the daily
// error log and child processes.
namespace EntryTest {

// A fresh directory under the test work directory, named after the running test case.
std::string freshDirectory(const std::string& tag = {});

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
bool exists(const std::string& path);

// "_OstrelinkNativeErrorLogger_<local date>.txt"
std::string todaysLogName();
// The records of an error log: each starts at a line that begins with a time stamp, a tab and
// "Thread ID: ", and runs up to the next such line, its final "\n" left off.
std::vector<std::string> records(const std::string& logContent);
// The message part of a record (behind the second tab).
std::string messageOf(const std::string& record);
// Lines of a text file, without their "\n".
std::vector<std::string> lines(const std::string& content);

struct ChildResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};
// Runs argv in workingDirectory with extra environment variables (an empty value unsets it),
// collecting its standard output and error.
ChildResult runChild(const std::vector<std::string>& argv, const std::string& workingDirectory,
                     const std::map<std::string, std::string>& environment);

}  // namespace EntryTest
