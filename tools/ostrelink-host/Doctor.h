#pragma once

#include <ostream>
#include <string>

// ostrelink-host doctor: checks an installation line by line ("doctor: ..." on the results
// stream) and stops at the first problem with what to do about it. What it says about the JVM
// search comes from the library itself, from the lines its Initialize prints, its runtime info and
// its failures; the doctor only looks at each candidate the library names or implies.
class Doctor {
public:
    // javaHomeFromPath: the tool set JAVA_HOME to the JDK of java on PATH.
    Doctor(std::ostream& out, bool javaHomeFromPath)
        : m_out(out), m_javaHomeFromPath(javaHomeFromPath) {}

    // Runs every check on the runtime library at libraryPath. Starts the JVM. Returns the exit
    // status: 0 when every check passed, 1 after the first problem.
    int run(const std::string& libraryPath);

private:
    void check(const std::string& libraryPath);
    void say(const std::string& line);

    std::ostream& m_out;
    bool m_javaHomeFromPath;
};
