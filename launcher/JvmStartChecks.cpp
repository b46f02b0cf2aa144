#include "launcher/JvmStartChecks.h"

#include <cctype>

namespace Ostrelink::Native::Launcher {

namespace {

bool isSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

// option is name alone, or name followed by separator and a value.
bool isOption(const std::string& option, const std::string& name, char separator) {
    return startsWith(option, name.c_str()) &&
           (option.size() == name.size() || option[name.size()] == separator);
}

}  // namespace

std::optional<std::vector<std::string>> splitJvmOptions(const std::string& text) {
    std::vector<std::string> options;
    std::size_t at = 0;
    while (true) {
        while (at < text.size() && isSpace(text[at])) {
            ++at;
        }
        if (at == text.size()) {
            return options;
        }
        std::string option;
        while (at < text.size() && !isSpace(text[at])) {
            const char c = text[at++];
            if (c != '\'' && c != '"') {
                option += c;
                continue;
            }
            const std::size_t close = text.find(c, at);
            if (close == std::string::npos) {
                return std::nullopt;
            }
            option.append(text, at, close - at);
            at = close + 1;
        }
        options.push_back(std::move(option));
    }
}

const std::string* findReservedJvmOption(const std::vector<std::string>& options, bool debugMode) {
    for (const auto& option : options) {
        const bool classPath = option == "-cp" || option == "-classpath" ||
                               isOption(option, "--class-path", '=') ||
                               isOption(option, "-Djava.class.path", '=');
        const bool debugger =
            isOption(option, "-agentlib:jdwp", '=') || isOption(option, "-Xrunjdwp", ':');
        if (classPath || (debugMode && debugger)) {
            return &option;
        }
    }
    return nullptr;
}

}  // namespace Ostrelink::Native::Launcher
