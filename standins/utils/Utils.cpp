// Stand-in of the Utils library's telemetry. With OSTRELINK_TELEMETRY_FILE set, every event is
// appended to that file as one tab-separated line; without it events go nowhere. It never
// throws: a throw would reach whoever reported the event.

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>

namespace {

std::mutex fileMutex;

// Tabs and line ends would break the one-line-per-event form; they become blanks.
std::string field(std::string text) {
    for (char& c : text) {
        if (c == '\t' || c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    return text;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void LogMessage(std::string first,
                                                                  std::string second,
                                                                  std::string third) {
    const char* path = std::getenv("OSTRELINK_TELEMETRY_FILE");
    if (path == nullptr || *path == '\0') {
        return;
    }
    try {
        const std::string line = field(first) + "\t" + field(second) + "\t" + field(third) + "\n";
        const std::lock_guard<std::mutex> lock(fileMutex);
        std::ofstream file(path, std::ios::out | std::ios::app);
        file << line;
    } catch (...) {
        // Telemetry is best effort: losing an event is better than failing the caller.
    }
}
