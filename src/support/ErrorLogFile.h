#pragma once

#include <string>

// The daily error log: one file per local day in the working directory. Shared with the doctor
// of ostrelink-host, which names the file without writing to it.
namespace Ostrelink::Native::ErrorLogFile {

// Format of the date in the file name, for std::put_time.
inline constexpr char dateFormat[] = "%Y-%m-%d";

inline std::string path(const std::string& workingDirectory, const std::string& date) {
    return workingDirectory + "/_OstrelinkNativeErrorLogger_" + date + ".txt";
}

}  // namespace Ostrelink::Native::ErrorLogFile
