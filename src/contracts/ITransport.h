#pragma once

#include <string>

namespace Ostrelink::Native::Interfaces {

// One channel to another runtime: in memory, or a network client library's connection.
// The order of the virtual operations is a binary contract between separately built libraries:
// never reorder, insert or remove one.
// A transmitter drives its channels as docs/host-api.md of the installation says of
// ITransmitter: send, then read the reply on the same thread.
class ITransport {
public:
    virtual ~ITransport() = default;
    virtual int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                           unsigned char runtimeVersion) = 0;
    virtual int SendCommand(unsigned char* message, int length) = 0;
    virtual int ReadResponse(unsigned char* buffer, int length) = 0;
    virtual unsigned char SetEmbeddedRuntime(unsigned char callingRuntime,
                                             unsigned char calledRuntime,
                                             unsigned char runtimeVersion, std::string path) = 0;
    virtual unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                        unsigned char flag) = 0;
};

}  // namespace Ostrelink::Native::Interfaces
