#include "launcher/JvmStartChecks.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "support/Platform.h"

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

constexpr char optionsFileOption[] = "-XX:VMOptionsFile=";

bool isClassPathOption(const std::string& option) {
    return option == "-cp" || option == "-classpath" || isOption(option, "--class-path", '=') ||
           isOption(option, "-Djava.class.path", '=');
}

bool isDebuggerOption(const std::string& option) {
    if (isOption(option, "-agentlib:jdwp", '=') || isOption(option, "-Xrunjdwp", ':')) {
        return true;
    }
    const std::string agentPath = "-agentpath:";
    if (!startsWith(option, agentPath.c_str())) {
        return false;
    }
    const std::string path = option.substr(agentPath.size(), option.find('=') - agentPath.size());
    const std::string file = path.substr(path.rfind('/') + 1);
    return file == "jdwp" || file == OSTRELINK_LIBRARY_FILE("jdwp");
}

class ScopedDescriptor {
public:
    explicit ScopedDescriptor(int descriptor) : m_descriptor(descriptor) {}
    ~ScopedDescriptor() {
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
    }
    ScopedDescriptor(const ScopedDescriptor&) = delete;
    ScopedDescriptor& operator=(const ScopedDescriptor&) = delete;
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

std::optional<std::string> readJvmOptionsFile(const std::string& path) {
    // Not blocking: a FIFO without a writer would hold the open up.
    const ScopedDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) {
        return std::nullopt;
    }
    std::string text(static_cast<std::size_t>(std::max<off_t>(status.st_size, 0)), '\0');
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t got = read(file.get(), &text[done], text.size() - done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return std::nullopt;
        }
        if (got == 0) {
            break;
        }
        done += static_cast<std::size_t>(got);
    }
    text.resize(done);
    return text;
}

std::optional<std::string> findReservedJvmOption(const std::vector<std::string>& options,
                                                 ReservedOptions reserved,
                                                 const OptionsFileReader& readFile) {
    const auto isReserved = [&reserved](const std::string& option) {
        return (reserved.classPath && isClassPathOption(option)) ||
               (reserved.debugger && isDebuggerOption(option));
    };
    for (const auto& option : options) {
        if (isReserved(option)) {
            return option;
        }
        if (!startsWith(option, optionsFileOption)) {
            continue;
        }
        // The JVM takes no options file inside another.
        const std::string path = option.substr(sizeof optionsFileOption - 1);
        const std::optional<std::string> text = readFile(path);
        const auto inFile = text ? splitJvmOptions(*text) : std::nullopt;
        for (const auto& fileOption : inFile.value_or(std::vector<std::string>())) {
            if (isReserved(fileOption)) {
                return std::string(fileOption).append(" (in ").append(path).append(")");
            }
        }
    }
    return std::nullopt;
}

std::vector<std::string> optionsBlamedBy(const std::string& jvmMessage,
                                         const std::vector<std::string>& options) {
    const auto named = [&jvmMessage](const std::string& option) {
        // -XX:[+-]Name[=value] is named by Name alone ("Unrecognized VM option 'Name'").
        std::string name = option;
        if (startsWith(name, "-XX:")) {
            name = name.substr(startsWith(name, "-XX:+") || startsWith(name, "-XX:-") ? 5 : 4);
            name = name.substr(0, name.find('='));
        }
        // A name this short would be found in any message.
        return name.size() >= 3 && jvmMessage.find(name) != std::string::npos;
    };
    const struct {
        const char* word;
        std::vector<const char*> prefixes;
        const char* suffix;
    } kinds[] = {
        {"heap",
         {"-Xms", "-Xmx", "-Xmn", "-XX:InitialHeapSize=", "-XX:MaxHeapSize=", "-XX:MinHeapSize=",
          "-XX:NewSize=", "-XX:MaxNewSize=", "-XX:MaxRAM"},
         ""},
        {"stack size", {"-Xss", "-XX:ThreadStackSize="}, ""},
        {"agent", {"-agentlib:", "-agentpath:", "-javaagent:", "-Xrun"}, ""},
        {"garbage collector", {"-XX:+Use"}, "GC"},
    };
    std::vector<std::string> blamed;
    for (const auto& option : options) {
        if (named(option)) {
            blamed.push_back(option);
        }
    }
    for (const auto& kind : kinds) {
        if (!blamed.empty() || jvmMessage.find(kind.word) == std::string::npos) {
            continue;
        }
        for (const auto& option : options) {
            const std::string suffix = kind.suffix;
            const bool ofKind =
                std::any_of(kind.prefixes.begin(), kind.prefixes.end(),
                            [&option](const char* prefix) { return startsWith(option, prefix); });
            if (ofKind && option.size() >= suffix.size() &&
                option.compare(option.size() - suffix.size(), suffix.size(), suffix) == 0) {
                blamed.push_back(option);
            }
        }
    }
    return blamed;
}

int loopbackPortBindError(unsigned short port) {
    const ScopedDescriptor probe(socket(AF_INET, SOCK_STREAM, 0));
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
