#include "support/AppInsightLogger.h"

#include <dlfcn.h>

#include "support/LibrariesFinder.h"

namespace Ostrelink::Native::AppInsightLogger {

void* AppInsightLogger::utilsLibraryInstance = nullptr;
AppInsightLogger::LogMessageFn AppInsightLogger::LogMessage_Fn = nullptr;

int AppInsightLogger::initialize() {
    if (utilsLibraryInstance == nullptr) {
        utilsLibraryInstance = LibrariesFinder::LibrariesFinder::loadUtilsLibrary(false);
        if (utilsLibraryInstance == nullptr) {
            return 1;
        }
    }
    if (LogMessage_Fn == nullptr) {
        LogMessage_Fn = reinterpret_cast<LogMessageFn>(dlsym(utilsLibraryInstance, "LogMessage"));
    }
    return 0;
}

int AppInsightLogger::LogMessage(std::string first, std::string second, std::string third) {
    initialize();
    if (LogMessage_Fn == nullptr) {
        return 0;
    }
    LogMessage_Fn(first, second, third);
    return 0;
}

}  // namespace Ostrelink::Native::AppInsightLogger
