#include "entry/EntryTestSupport.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "common/ChildProcess.h"

namespace fs = std::filesystem;

namespace EntryTest {

std::string freshDirectory(const std::string& tag) {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = info != nullptr ? std::string(info->test_suite_name()) + "." + info->name()
                                       : std::string("entry");
    if (!tag.empty()) {
        name += "." + tag;
    }
    const fs::path directory = fs::current_path() / "entry-tmp" / name;
    fs::remove_all(directory);
    fs::create_directories(directory);
    return fs::canonical(directory).string();
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

bool exists(const std::string& path) {
    return fs::exists(path);
}

std::string todaysLogName() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::ostringstream name;
    name << "_OstrelinkNativeErrorLogger_" << std::put_time(&local, "%Y-%m-%d") << ".txt";
    return name.str();
}

std::vector<std::string> records(const std::string& logContent) {
    static const std::regex start(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\tThread ID: [^\t\n]+\t)");
    std::vector<std::string> found;
    std::size_t lineBegin = 0;
    while (lineBegin < logContent.size()) {
        std::size_t lineEnd = logContent.find('\n', lineBegin);
        if (lineEnd == std::string::npos) {
            lineEnd = logContent.size();
        }
        const std::string line = logContent.substr(lineBegin, lineEnd - lineBegin);
        if (std::regex_search(line, start) || found.empty()) {
            found.push_back(line);
        } else {
            found.back() += "\n" + line;
        }
        lineBegin = lineEnd + 1;
    }
    return found;
}

std::string messageOf(const std::string& record) {
    const std::size_t first = record.find('\t');
    const std::size_t second = first == std::string::npos ? first : record.find('\t', first + 1);
    return second == std::string::npos ? std::string() : record.substr(second + 1);
}

std::vector<std::string> lines(const std::string& content) {
    std::vector<std::string> result;
    std::istringstream stream(content);
    std::string line;
    while (std::getline(stream, line)) {
        result.push_back(line);
    }
    return result;
}

ChildResult runChild(const std::vector<std::string>& argv, const std::string& workingDirectory,
                     const std::map<std::string, std::string>& environment) {
    std::map<std::string, std::optional<std::string>> changes;
    for (const auto& [name, value] : environment) {
        changes[name] = value.empty() ? std::nullopt : std::optional<std::string>(value);
    }
    const ChildRun run =
        ::runChild(argv[0], {argv.begin() + 1, argv.end()}, changes, workingDirectory);
    return {run.status, run.out, run.err};
}

}  // namespace EntryTest
