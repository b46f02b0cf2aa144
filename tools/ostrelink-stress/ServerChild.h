#pragma once

#include <sys/types.h>

#include <string>

namespace Ostrelink::Tools::Stress {

// An ostrelink-server child process on 127.0.0.1 with a port of the system's choosing. Stopped
// with SIGTERM (and, should it not end within a few seconds, SIGKILL) when the object goes.
class ServerChild {
public:
    explicit ServerChild(const std::string& executable);
    ~ServerChild();
    ServerChild(const ServerChild&) = delete;
    ServerChild& operator=(const ServerChild&) = delete;

    unsigned short port() const { return m_port; }
    // Stops the server; returns its exit status as waitpid gives it.
    int stop();

private:
    pid_t m_pid = -1;
    unsigned short m_port = 0;
};

}  // namespace Ostrelink::Tools::Stress
