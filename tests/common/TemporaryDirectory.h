#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

// A fresh directory under /tmp for the length of a test, removed with everything in it.
class TemporaryDirectory {
public:
    explicit TemporaryDirectory(const std::string& prefix = "ostrelink-test-")
        : m_path("/tmp/" + prefix + "XXXXXX") {
        if (mkdtemp(m_path.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed for " + m_path);
        }
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};
