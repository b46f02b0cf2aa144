#pragma once

#include <string>

namespace Ostrelink::Native::Interfaces {

// The part of a runtime library that knows one managed runtime.
// The order of the virtual operations is a binary contract between separately built libraries:
// never reorder, insert or remove one.
class ILauncher {
public:
    virtual ~ILauncher() = default;
    virtual void Initialize(unsigned char runtimeVersion) = 0;
    virtual int SendCommand(unsigned char* message, int length) = 0;
    virtual int ReadResponse(unsigned char* buffer, int length) = 0;
    virtual unsigned char LoadOptimizedMethod(std::string method) = 0;
    virtual unsigned char SetPath(unsigned char runtimeVersion, std::string path) = 0;
    virtual unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                        unsigned char flag) = 0;
    virtual bool IsInitialized() = 0;
    virtual void SetInitialized() = 0;
    virtual std::string GetRuntimeName() = 0;
    virtual std::string GetRuntimeInfo() = 0;
};

}  // namespace Ostrelink::Native::Interfaces
