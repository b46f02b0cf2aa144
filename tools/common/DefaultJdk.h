#pragma once

#include <optional>
#include <string>

// The machine's default JDK, for a host started without JAVA_HOME: the home of the first java or
// javac on a search path, through any symbolic links (/usr/bin/java -> ... -> <home>/bin/java).
class DefaultJdk {
public:
    struct Found {
        std::string home;
        std::string launcher;  // the file on the search path that led there
    };

    // searchPath: a PATH value, directories separated by ':'; an empty entry is the current
    // directory. Nothing found: no value.
    static std::optional<Found> find(const std::string& searchPath);

    // The library finds a JVM through OSTRELINK_JVM_RUNTIME_PATH or JAVA_HOME only; a user who
    // set neither (or set them empty, as CI scripts often do) means the machine's java. Then
    // JAVA_HOME becomes the JDK of the first java or javac on PATH, with one line on standard
    // error that begins with "<tool>: ". With none found, an empty JAVA_HOME is removed, so that
    // the library asks for JAVA_HOME to be set. Call it before any thread starts: it changes the
    // environment. True when it set JAVA_HOME.
    static bool useIfNoneSet(const char* tool);
};
