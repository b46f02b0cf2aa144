#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Shared by the fuzz targets. A target stops the run through check() on a broken invariant, so
// that libFuzzer records the input as a crash.

namespace fuzz {

// Opens a library by full path; aborts the run when it can't, since no input can help then.
void* openLibrary(const std::string& path);
void* findSymbol(void* library, const char* name);

// Keeps the library's failure reporting off the terminal and away from the 50 ms pause of a
// written error-log record: no line on standard error, and a log directory that doesn't exist.
void quietFailureReporting();
// Same for the working directory of one installation's Configs library, set through the
// exported SetWorkingDirectoryPath of that installation's runtime library.
void pointErrorLogNowhere(void* runtimeLibrary);

// Makes a fresh directory under TMPDIR (or /tmp) with a few jars, a text file, a directory
// named like a jar, a subdirectory with a jar, an empty directory and links, then makes it
// the current directory. Returns its path.
std::string enterSandbox(const char* prefix);

[[noreturn]] void fail(const char* what);
inline void check(bool condition, const char* what) {
    if (!condition) {
        fail(what);
    }
}

// Reads the input from the front: a cursor that yields zero bytes once it runs dry.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    std::uint8_t byte() { return m_position < m_size ? m_data[m_position++] : 0; }
    const std::uint8_t* rest() const { return m_data + m_position; }
    std::size_t restSize() const { return m_size - m_position; }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_position = 0;
};

}  // namespace fuzz
