#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "contracts/ILauncher.h"
#include "contracts/IReceiver.h"
#include "contracts/RuntimeOperationMode.h"

namespace Ostrelink::Native::Receiver {

// The inbound endpoint of any runtime library: owns its launcher, forwards commands to it, and
// reports the runtime's start and exception replies to telemetry. Initialize may be called by
// any number of threads at once: one runs it, and those that arrive meanwhile wait for that run
// and get its result.
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

    // Written by Initialize, read by LogException on any thread. 255: no runtime yet.
    std::atomic<unsigned char> m_callingRuntime{255};
    std::atomic<unsigned char> m_calledRuntime{255};
    bool m_runtimeInfoPrinted = false;
    std::unique_ptr<Interfaces::ILauncher> m_launcher;
    const Definitions::RuntimeOperationMode m_operationMode;

private:
    void RunInitialize(unsigned char callingRuntime, unsigned char calledRuntime,
                       unsigned char runtimeVersion);

    // Held through a run of Initialize. A run ends by counting itself in m_initializeRuns and
    // leaving its failure, if any, for the threads that waited for it.
    std::mutex m_initializeMutex;
    std::atomic<unsigned> m_initializeRuns{0};
    std::exception_ptr m_initializeFailure;
};

}  // namespace Ostrelink::Native::Receiver
