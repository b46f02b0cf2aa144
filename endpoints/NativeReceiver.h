#pragma once

#include <memory>
#include <string>

#include "contracts/ILauncher.h"
#include "contracts/IReceiver.h"
#include "contracts/RuntimeOperationMode.h"

namespace Ostrelink::Native::Receiver {

// The inbound endpoint of any runtime library: owns its launcher, forwards commands to it, and
// reports the runtime's start and exception replies to telemetry. Holds no lock: its fields are
// written only in Initialize, which callers serialise.
class NativeReceiver : public Interfaces::IReceiver {
public:
    int SetConfigSource(std::string source) override;
    int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                   unsigned char runtimeVersion) override;
    int SendCommand(unsigned char* message, int length) override;
    int ReadResponse(unsigned char* buffer, int length) override;
    void LogException(unsigned char* message, int length) override;
    unsigned char LoadOptimizedMethod(std::string method) override;
    unsigned char SetEmbeddedRuntime(unsigned char runtimeVersion, std::string path) override;
    unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                unsigned char flag) override;

protected:
    explicit NativeReceiver(Definitions::RuntimeOperationMode mode) : m_operationMode(mode) {}

    unsigned char m_callingRuntime = 255;  // 255: no runtime yet
    unsigned char m_calledRuntime = 255;
    bool m_runtimeInfoPrinted = false;
    std::unique_ptr<Interfaces::ILauncher> m_launcher;
    const Definitions::RuntimeOperationMode m_operationMode;
};

}  // namespace Ostrelink::Native::Receiver
