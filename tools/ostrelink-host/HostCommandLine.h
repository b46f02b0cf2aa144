#pragma once

#include <stdexcept>
#include <string>
#include <vector>

// What the command line asks for: options, then commands that run in order.
struct HostStep {
    enum class Kind { Health, Load, Call, Echo, Info };
    Kind kind;
    // load: the paths; call: class, method, arguments; echo: the text.
    std::vector<std::string> arguments;
};

// A command line that can't be run; the text says what is wrong with it.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class HostCommandLine {
public:
    // Throws UsageError.
    static HostCommandLine parse(const std::vector<std::string>& arguments);
    static std::string helpText();

    bool help() const { return m_help; }
    // "doctor": no steps then.
    bool doctor() const { return m_doctor; }
    // Empty: the library of the installation this program belongs to.
    const std::string& libraryPath() const { return m_libraryPath; }
    const std::vector<HostStep>& steps() const { return m_steps; }

private:
    bool m_help = false;
    bool m_doctor = false;
    std::string m_libraryPath;
    std::vector<HostStep> m_steps;
};
