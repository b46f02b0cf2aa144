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
};
