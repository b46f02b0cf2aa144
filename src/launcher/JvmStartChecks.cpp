#include "launcher/JvmStartChecks.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>

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

class ScopedSocket {
public:
    explicit ScopedSocket(int descriptor) : m_descriptor(descriptor) {}
    ~ScopedSocket() {
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
    }
    ScopedSocket(const ScopedSocket&) = delete;
    ScopedSocket& operator=(const ScopedSocket&) = delete;
    int get() const { return m_descriptor; }

private:
    int m_descriptor;
};

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

int loopbackPortBindError(unsigned short port) {
    const ScopedSocket probe(socket(AF_INET, SOCK_STREAM, 0));
    if (probe.get() < 0) {
        return errno;
    }
    const int on = 1;
    setsockopt(probe.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return errno;
    }
    return 0;
}

}  // namespace Ostrelink::Native::Launcher
