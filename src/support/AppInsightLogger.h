#pragma once

#include <atomic>
#include <string>

namespace Ostrelink::Native::AppInsightLogger {

// Hands short events to the Utils library's LogMessage. Optional: without that library, or
// without the export, events are dropped in silence and the load is tried again next time.
class AppInsightLogger {
public:
    AppInsightLogger() = delete;

    // 1 when no library handle could be had, else 0.
    static int initialize();
    // Always 0.
    static int LogMessage(std::string first, std::string second, std::string third);

private:
    using LogMessageFn = void (*)(std::string, std::string, std::string);

    // Filled at first need without a lock; racing threads store the same values.
    static std::atomic<void*> utilsLibraryInstance;
    static std::atomic<LogMessageFn> LogMessage_Fn;
};

}  // namespace Ostrelink::Native::AppInsightLogger
