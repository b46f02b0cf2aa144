#pragma once

#include <ostrelink/IReceiver.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace Ostrelink::Network::Server {

class RuntimeLoadError : public std::runtime_error {
public:
    explicit RuntimeLoadError(const std::string& text) : std::runtime_error(text) {}
};

// The runtime library the server stands for, opened by full path, and its receiver in Called
// mode, initialised once with calling runtime 255 (nobody in particular) and the library's own
// code. The library stays loaded for the life of the process: a runtime may keep threads running
// in it (a started JVM does) that would crash if it went away.
class HostedRuntime {
public:
    HostedRuntime(const std::string& path, int runtimeCode);

    // Runs one command on the calling thread and returns its reply. A failure of the receiver
    // comes back as an exception reply (see errorReply), never as a C++ exception.
    std::vector<unsigned char> handle(std::vector<unsigned char>& request) const;

    // A reply with commandType 10 (ExceptionReply), addressed to the request's calling runtime
    // and sent by this one, whose payloadText (offset 24 on) is the text.
    std::vector<unsigned char> errorReply(const std::vector<unsigned char>& request,
                                          const std::string& text) const;

private:
    Native::Interfaces::IReceiver* m_receiver = nullptr;
    unsigned char m_runtimeCode;
};

}  // namespace Ostrelink::Network::Server
