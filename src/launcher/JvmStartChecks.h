#pragma once

#include <optional>
#include <string>
#include <vector>

// Checks made before the JVM is created. Pure, apart from the port probe, so that they are
// tested without a JVM.
namespace Ostrelink::Native::Launcher {

// Splits extra JVM options as the JDK's launcher splits JDK_JAVA_OPTIONS: white space (isspace)
// separates options, single or double quotes group and are dropped, and there is no escape.
// nullopt when a quote is not closed.
std::optional<std::vector<std::string>> splitJvmOptions(const std::string& text);

// The first option that would replace one the library sets itself: the class path, and in debug
// mode the JDWP agent. Null when there is none.
const std::string* findReservedJvmOption(const std::vector<std::string>& options, bool debugMode);

// 0 when a TCP socket can be bound to 127.0.0.1:port now, else the errno of the failure. Binds
// the way the JDWP agent does (SO_REUSEADDR), so a port that lingers in TIME_WAIT counts as free.
int loopbackPortBindError(unsigned short port);

}  // namespace Ostrelink::Native::Launcher
