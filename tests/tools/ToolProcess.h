#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

// One run of a program as a child process, with its own environment and working directory, and
// what it printed and returned.
struct ToolRun {
    int status = -1;  // exit status; -1 when it did not exit normally
    std::string out;
    std::string err;
};

class ToolProcess {
public:
    // changes: variables to set (a value) or to remove (no value) in this process's environment.
    static ToolRun run(const std::string& program, const std::vector<std::string>& arguments,
                       const std::map<std::string, std::optional<std::string>>& changes,
                       const std::string& workingDirectory);
};
