#pragma once

#include <string>

#include "ITransport.h"

namespace Ostrelink::Native::Interfaces {

// The outbound endpoint of a runtime library, handed out by its exported CreateTransmitter.
// The order of the virtual operations is a binary contract between separately built libraries:
// never reorder, insert or remove one.
// What each operation returns and which thread reads which reply: docs/host-api.md
// of the installation.
class ITransmitter {
public:
    virtual ~ITransmitter() = default;
    virtual int SendCommand(unsigned char* message, int length) = 0;
    virtual int ReadResponse(unsigned char* buffer, int length) = 0;
    // Takes ownership of channel.
    virtual void SetTransportChannel(ITransport* channel) = 0;
    virtual unsigned char SetEmbeddedRuntime(unsigned char callingRuntime,
                                             unsigned char calledRuntime,
                                             unsigned char runtimeVersion, std::string path) = 0;
    virtual unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                        unsigned char flag) = 0;
};

}  // namespace Ostrelink::Native::Interfaces
