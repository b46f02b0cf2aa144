#include "launcher/JvmStartHooks.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <sstream>

namespace {

constexpr char abandonedMark[] = "Error occurred during initialization of VM\n";
constexpr char pickedUpNotice[] = "Picked up ";
// Enough for the JVM's reason and a few warnings before it.
constexpr std::size_t keptOutput = 4096;

std::mutex stateMutex;
// Guarded by stateMutex.
bool starting = false;
pthread_t launchThread{};
bool abandonedStart = false;
std::string startOutput;
// Read on every line the JVM prints; true only during a start.
std::atomic<bool> capturing{false};

// Returns only when the calling thread is not a launch thread in its start.
void abandonIfStarting() {
    {
        const std::lock_guard<std::mutex> lock(stateMutex);
        if (!starting || pthread_equal(pthread_self(), launchThread) == 0) {
            return;
        }
        abandonedStart = true;
        starting = false;
        capturing.store(false);
    }
    pthread_exit(nullptr);
}

void JNICALL exitHook(jint /*code*/) {
    abandonIfStarting();
}

void JNICALL abortHook() {
    abandonIfStarting();
}

jint JNICALL printHook(FILE* stream, const char* format, va_list arguments) {
    if (capturing.load()) {
        va_list copy;
        va_copy(copy, arguments);
        char line[1024];
        const int length = std::vsnprintf(line, sizeof line, format, copy);
        va_end(copy);
        if (length > 0) {
            const std::lock_guard<std::mutex> lock(stateMutex);
            startOutput.append(line, std::min(static_cast<std::size_t>(length), sizeof line - 1));
            if (startOutput.size() > keptOutput) {
                startOutput.erase(0, startOutput.size() - keptOutput);
            }
        }
    }
    const int written = std::vfprintf(stream, format, arguments);
    std::fflush(stream);
    return written;
}

char exitOption[] = "exit";
char abortOption[] = "abort";
char printOption[] = "vfprintf";

}  // namespace

namespace Ostrelink::Native::Launcher {

void JvmStartHooks::fill(JavaVMOption* options) {
    options[0] = {exitOption, reinterpret_cast<void*>(&exitHook)};
    options[1] = {abortOption, reinterpret_cast<void*>(&abortHook)};
    options[2] = {printOption, reinterpret_cast<void*>(&printHook)};
}

JvmStartHooks::Watch::Watch() {
    const std::lock_guard<std::mutex> lock(stateMutex);
    starting = true;
    launchThread = pthread_self();
    startOutput.clear();
    capturing.store(true);
}

JvmStartHooks::Watch::~Watch() {
    const std::lock_guard<std::mutex> lock(stateMutex);
    starting = false;
    capturing.store(false);
}

bool JvmStartHooks::abandoned() {
    const std::lock_guard<std::mutex> lock(stateMutex);
    return abandonedStart;
}

std::string JvmStartHooks::jvmMessage() {
    const std::lock_guard<std::mutex> lock(stateMutex);
    const std::size_t mark = startOutput.rfind(abandonedMark);
    std::istringstream lines(mark == std::string::npos
                                 ? startOutput
                                 : startOutput.substr(mark + sizeof abandonedMark - 1));
    std::string message;
    for (std::string line; std::getline(lines, line);) {
        // Not a reason: the JVM's notice of the variables it read.
        if (line.find_first_not_of(" \t\r") == std::string::npos ||
            line.rfind(pickedUpNotice, 0) == 0) {
            continue;
        }
        message += (message.empty() ? "" : "\n") + line;
    }
    return message;
}

}  // namespace Ostrelink::Native::Launcher
