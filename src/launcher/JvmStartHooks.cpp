#include "launcher/JvmStartHooks.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <thread>

namespace {

constexpr char abandonedMark[] = "Error occurred during initialization of VM\n";
constexpr char pickedUpNotice[] = "Picked up ";
// Enough for the JVM's reason and a few warnings before it.
constexpr std::size_t keptOutput = 4096;

enum class Launch { None, Running, Returned, Abandoned };

std::mutex stateMutex;
// Guarded by stateMutex; a change of launch is announced on launchChanged.
Launch launchState = Launch::None;
pthread_t launchThread{};
std::string startOutput;
std::condition_variable launchChanged;
// Read on every line the JVM prints; true only while a launch runs.
std::atomic<bool> capturing{false};

// Returns only when the calling thread is not a launch thread in its start. The JVM that gave up
// holds its locks and its half-made state on this thread's stack; ending the thread instead
// (pthread_exit) would unwind through the JVM's frames, which skips their clean-ups all the same.
void parkIfLaunching() {
    {
        const std::lock_guard<std::mutex> lock(stateMutex);
        if (launchState != Launch::Running || pthread_equal(pthread_self(), launchThread) == 0) {
            return;
        }
        launchState = Launch::Abandoned;
        capturing.store(false);
    }
    launchChanged.notify_all();
    while (true) {
        pause();
    }
}

void JNICALL exitHook(jint /*code*/) {
    parkIfLaunching();
}

void JNICALL abortHook() {
    parkIfLaunching();
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

bool JvmStartHooks::launch(const std::function<void()>& body) {
    {
        const std::lock_guard<std::mutex> lock(stateMutex);
        launchState = Launch::Running;
        startOutput.clear();
        capturing.store(true);
    }
    std::thread thread([&body] {
        {
            const std::lock_guard<std::mutex> lock(stateMutex);
            launchThread = pthread_self();
        }
        body();
        {
            const std::lock_guard<std::mutex> lock(stateMutex);
            launchState = Launch::Returned;
            capturing.store(false);
        }
        launchChanged.notify_all();
    });
    std::unique_lock<std::mutex> lock(stateMutex);
    launchChanged.wait(lock, [] { return launchState != Launch::Running; });
    if (launchState == Launch::Abandoned) {
        thread.detach();
        return false;
    }
    lock.unlock();
    thread.join();
    return true;
}

bool JvmStartHooks::abandoned() {
    const std::lock_guard<std::mutex> lock(stateMutex);
    return launchState == Launch::Abandoned;
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
