#pragma once

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

// The one exception type of the library. Constructing it is the act of reporting: a line on
// standard error, a record in the daily error log and a telemetry event. Raisers log nothing
// themselves. Copies report nothing.
class OstrelinkNativeException : public std::runtime_error {
public:
    OstrelinkNativeException(const std::string& message, std::string callingRuntimeName);
    OstrelinkNativeException(const OstrelinkNativeException& other);
    OstrelinkNativeException& operator=(const OstrelinkNativeException&) = delete;
    ~OstrelinkNativeException() override;

private:
    std::ofstream m_logFile;
    std::stringstream m_dateStream;
    std::string m_date;
    std::stringstream m_dateTimeStream;
    std::string m_dateTime;
    std::string m_logFilePath;
    std::string m_supportMessage;
};
