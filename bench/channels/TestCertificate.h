#pragma once

#include <string>

// A self-signed certificate for 127.0.0.1 (P-256 key, IP address entry, CA:TRUE so it can be
// its own trust anchor), written as PEM files into a fresh directory under /tmp, which goes with
// the object.
class TestCertificate {
public:
    TestCertificate();
    ~TestCertificate();
    TestCertificate(const TestCertificate&) = delete;
    TestCertificate& operator=(const TestCertificate&) = delete;

    const std::string& certificateFile() const { return m_certificateFile; }
    const std::string& keyFile() const { return m_keyFile; }

private:
    std::string m_directory;
    std::string m_certificateFile;
    std::string m_keyFile;
};
