#pragma once

#include <functional>
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

// What the library sets itself, and so may come from no other option.
struct ReservedOptions {
    bool classPath;
    // The JDWP agent of debug mode, however it is named: -agentlib:jdwp, -Xrunjdwp, or
    // -agentpath: to a file named jdwp or libjdwp.so.
    bool debugger;
};

// The text of the options file at path; nullopt when it can't be read.
using OptionsFileReader = std::function<std::optional<std::string>(const std::string& path)>;

// Reads an options file the way the JVM does: as many bytes as its size says, so that a file
// without one (/dev/zero, a FIFO, a /proc file) counts as empty instead of being read for ever.
// nullopt when it can't be opened or read.
std::optional<std::string> readJvmOptionsFile(const std::string& path);

// The first of options that is reserved, or that an options file names (-XX:VMOptionsFile=F,
// read with readFile and split as the JVM splits it) holds: as written, followed by " (in F)"
// when it comes from F. nullopt when there is none, and for a file that can't be read or split,
// which the JVM itself reports.
std::optional<std::string> findReservedJvmOption(const std::vector<std::string>& options,
                                                 ReservedOptions reserved,
                                                 const OptionsFileReader& readFile);

// Where a failed start's text (031 to 037) gives what the JVM printed while it started.
inline constexpr char jvmMessageNote[] = "\nThe JVM said: ";

// The options that the JVM's message about a failed start points at: those it names, or those of
// the kind it names (a heap size, a thread stack size, an agent, a collector). Empty when it
// points at none of them.
std::vector<std::string> optionsBlamedBy(const std::string& jvmMessage,
                                         const std::vector<std::string>& options);

// 0 when a TCP socket can be bound to 127.0.0.1:port now, else the errno of the failure. Binds
// the way the JDWP agent does (SO_REUSEADDR), so a port that lingers in TIME_WAIT counts as free.
int loopbackPortBindError(unsigned short port);

}  // namespace Ostrelink::Native::Launcher
