#include "support/AppInsightLogger.h"

#include <dlfcn.h>

#include "support/LibrariesFinder.h"

namespace Ostrelink::Native::AppInsightLogger {

std::atomic<void*> AppInsightLogger::utilsLibraryInstance{nullptr};
std::atomic<AppInsightLogger::LogMessageFn> AppInsightLogger::LogMessage_Fn{nullptr};

int AppInsightLogger::initialize() {
    void* library = utilsLibraryInstance.load(std::memory_order_acquire);
    if (library == nullptr) {
        library = LibrariesFinder::LibrariesFinder::loadUtilsLibrary(false);
        if (library == nullptr) {
            return 1;
        }
        utilsLibraryInstance.store(library, std::memory_order_release);
    }
    if (LogMessage_Fn.load(std::memory_order_acquire) == nullptr) {
        LogMessage_Fn.store(reinterpret_cast<LogMessageFn>(dlsym(library, "LogMessage")),
                            std::memory_order_release);
    }
    return 0;
}

int AppInsightLogger::LogMessage(std::string first, std::string second, std::string third) {
    initialize();
    const LogMessageFn logMessage = LogMessage_Fn.load(std::memory_order_acquire);
    if (logMessage == nullptr) {
        return 0;
    }
    logMessage(first, second, third);
    return 0;
}

}  // namespace Ostrelink::Native::AppInsightLogger
