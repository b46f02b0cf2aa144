#include "support/OstrelinkNativeException.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <locale>
#include <system_error>
#include <thread>
#include <utility>

#include "support/AppInsightLogger.h"
#include "support/ConfigHandler.h"
#include "support/ErrorLogFile.h"
#include "support/ThreadRecord.h"

using Ostrelink::Native::AppInsightLogger::AppInsightLogger;
using Ostrelink::Native::ConfigHandler::ConfigHandler;

namespace {

constexpr const char* supportMessage =
    "\nIf the error persists, contact support on: support@ostrelink.dev";

// The thread's counters live in its record, made on first use, so valid during static
// initialisation too.
int& reportingDepth() {
    return ThreadRecord::ofThisThread().reportingDepth;
}
int& loadTimeDepth() {
    return ThreadRecord::ofThisThread().loadTimeDepth;
}

class ReportingScope {
public:
    ReportingScope() { ++reportingDepth(); }
    ~ReportingScope() { --reportingDepth(); }
    ReportingScope(const ReportingScope&) = delete;
    ReportingScope& operator=(const ReportingScope&) = delete;
};

// Where the error log goes when the facade can't say: the directory the Configs library itself
// defaults to. Empty when even that is unknown, and then no record is written.
std::string currentDirectory() {
    std::error_code error;
    std::string path = std::filesystem::current_path(error).generic_string();
    return error ? std::string() : path;
}

}  // namespace

OstrelinkNativeException::LoadTimeScope::LoadTimeScope() {
    ++loadTimeDepth();
}

OstrelinkNativeException::LoadTimeScope::~LoadTimeScope() {
    --loadTimeDepth();
}

OstrelinkNativeException::OstrelinkNativeException(const std::string& message,
                                                   std::string callingRuntimeName)
    : std::runtime_error(message), m_supportMessage(supportMessage) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    // "%X" is hours, minutes and seconds only in the classic locale; a host may have changed
    // the global one.
    m_dateStream.imbue(std::locale::classic());
    m_dateTimeStream.imbue(std::locale::classic());
    m_dateStream << std::put_time(&local, Ostrelink::Native::ErrorLogFile::dateFormat);
    m_dateTimeStream << std::put_time(&local, "%Y-%m-%d %X");
    m_date = m_dateStream.str();
    m_dateTime = m_dateTimeStream.str();

    const bool nested = reportingDepth() > 0 || loadTimeDepth() > 0;
    const ReportingScope reporting;

    int level = 1;
    bool facadeBroken = false;
    if (nested) {
        const int fromEnvironment = ConfigHandler::loggingLevelFromEnvironment();
        level = fromEnvironment < 0 ? 1 : fromEnvironment;
    } else {
        try {
            level = ConfigHandler::GetLoggingLevel();
        } catch (const std::exception&) {
            facadeBroken = true;
        }
    }
    if (level != 0) {
        std::cerr << m_dateTime << "\tThread ID: " << std::this_thread::get_id() << "\t" << message
                  << m_supportMessage << std::endl;
    }

    if (!nested) {
        std::string workingDirectory;
        if (!facadeBroken) {
            try {
                workingDirectory = ConfigHandler::GetWorkingDirectory();
            } catch (const std::exception&) {
                facadeBroken = true;
            }
        }
        if (facadeBroken) {
            workingDirectory = currentDirectory();
        }
        if (!facadeBroken || !workingDirectory.empty()) {
            writeRecord(message, workingDirectory);
        }
    }

    if (loadTimeDepth() == 0) {
        std::string telemetryText = message;
        telemetryText.erase(std::remove(telemetryText.begin(), telemetryText.end(), '\n'),
                            telemetryText.end());
        AppInsightLogger::LogMessage("Native exception", telemetryText,
                                     std::move(callingRuntimeName));
    }
}

void OstrelinkNativeException::writeRecord(const std::string& message,
                                           const std::string& workingDirectory) {
    m_logFilePath = Ostrelink::Native::ErrorLogFile::path(workingDirectory, m_date);
    m_logFile.open(m_logFilePath, std::ios::out | std::ios::app);
    if (m_logFile.fail()) {
        return;
    }
    m_logFile << m_dateTime << "\tThread ID: " << std::this_thread::get_id() << "\t" << message
              << std::endl;
    // Parallel failures each hold their file this long, so their records rarely interleave.
    std::this_thread::sleep_for(std::chrono::nanoseconds(50000000));
    m_logFile.close();
}

OstrelinkNativeException::OstrelinkNativeException(const OstrelinkNativeException& other)
    : std::runtime_error(other.what()), m_supportMessage(supportMessage) {}

OstrelinkNativeException::~OstrelinkNativeException() = default;
