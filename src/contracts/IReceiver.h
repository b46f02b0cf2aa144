#pragma once

#include <string>

namespace Ostrelink::Native::Interfaces {

// The inbound endpoint of a runtime library, handed out by its exported CreateReceiver.
// The order of the virtual operations is a binary contract between separately built libraries:
// never reorder, insert or remove one.
// What each operation returns, which thread may read which reply and what the
// library needs from its host: docs/host-api.md of the installation.
class IReceiver {
public:
    virtual ~IReceiver() = default;
    virtual int SetConfigSource(std::string source) = 0;
    virtual int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                           unsigned char runtimeVersion) = 0;
    virtual int SendCommand(unsigned char* message, int length) = 0;
    virtual int ReadResponse(unsigned char* buffer, int length) = 0;
    virtual void LogException(unsigned char* message, int length) = 0;
    virtual unsigned char LoadOptimizedMethod(std::string method) = 0;
    virtual unsigned char SetEmbeddedRuntime(unsigned char runtimeVersion, std::string path) = 0;
    virtual unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                        unsigned char flag) = 0;
};

}  // namespace Ostrelink::Native::Interfaces
