#pragma once

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

// The one exception type of the library. Constructing it is the act of reporting: a line on
// standard error, a record in the daily error log and a telemetry event. Raisers log nothing
// themselves. Copies report nothing.
//
// Reporting asks the configuration facade for the logging level and the working directory, and
// the facade's own failures are this type again. An exception constructed on a thread that is
// already reporting another one therefore does not ask the facade: it writes its line (at the
// level of OSTRELINK_LOGGING_LEVEL alone, 1 without it) and its telemetry event, and no record.
// A facade that fails while an exception reports costs that exception nothing: the exception
// takes level 1, logs into the process's current directory, and is still what the raiser throws.
class OstrelinkNativeException : public std::runtime_error {
public:
    OstrelinkNativeException(const std::string& message, std::string callingRuntimeName);
    OstrelinkNativeException(const OstrelinkNativeException& other);
    OstrelinkNativeException& operator=(const OstrelinkNativeException&) = delete;
    ~OstrelinkNativeException() override;

    // While one lives on a thread, exceptions constructed there touch neither the facade nor the
    // loaders, not even for telemetry: for code that runs while the library's statics are still
    // being built (the loaders read LibrariesFinder::pathToDir).
    class LoadTimeScope {
    public:
        LoadTimeScope();
        ~LoadTimeScope();
        LoadTimeScope(const LoadTimeScope&) = delete;
        LoadTimeScope& operator=(const LoadTimeScope&) = delete;
    };

private:
    void writeRecord(const std::string& message, const std::string& workingDirectory);

    std::ofstream m_logFile;
    std::stringstream m_dateStream;
    std::string m_date;
    std::stringstream m_dateTimeStream;
    std::string m_dateTime;
    std::string m_logFilePath;
    std::string m_supportMessage;
};
