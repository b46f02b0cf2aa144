#include "endpoints/NativeReceiver.h"

#include <cstdio>
#include <iostream>
#include <utility>

#include "contracts/CommandHeader.h"
#include "contracts/CommandType.h"
#include "support/AppInsightLogger.h"
#include "support/ConfigHandler.h"
#include "support/Failures.h"
#include "support/RuntimeNameHandler.h"

namespace Ostrelink::Native::Receiver {

using Definitions::CommandHeader;
using Definitions::CommandType;
using Definitions::RuntimeOperationMode;

namespace {
std::string runtimeName(unsigned char code) {
    return RuntimeNameHandler::RuntimeNameHandler::GetRuntimeName(code);
}
}  // namespace

int NativeReceiver::SetConfigSource(std::string source) {
    return ConfigHandler::ConfigHandler::SetConfigSource(source);
}

int NativeReceiver::Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                               unsigned char runtimeVersion) {
    if (m_operationMode == RuntimeOperationMode::NotSet) {
        Failures::raise(Failures::Failure::ReceiverWithoutMode);
    }
    if (m_launcher->IsInitialized()) {
        return 0;
    }
    const unsigned runsBefore = m_initializeRuns.load();
    const std::lock_guard<std::mutex> lock(m_initializeMutex);
    if (m_initializeRuns.load() != runsBefore) {
        // A run ended while this thread waited: its result is this call's result.
        if (m_initializeFailure) {
            std::rethrow_exception(m_initializeFailure);
        }
        return 0;
    }
    if (m_launcher->IsInitialized()) {
        return 0;
    }
    try {
        RunInitialize(callingRuntime, calledRuntime, runtimeVersion);
    } catch (...) {
        m_initializeFailure = std::current_exception();
        ++m_initializeRuns;
        throw;
    }
    m_initializeFailure = nullptr;
    ++m_initializeRuns;
    return 0;
}

void NativeReceiver::RunInitialize(unsigned char callingRuntime, unsigned char calledRuntime,
                                   unsigned char runtimeVersion) {
    m_callingRuntime = callingRuntime;
    m_calledRuntime = calledRuntime;
    m_launcher->Initialize(runtimeVersion);
    m_launcher->SetInitialized();
    if (m_operationMode != RuntimeOperationMode::Called) {
        return;
    }
    AppInsightLogger::AppInsightLogger::LogMessage("Native message",
                                                   runtimeName(m_calledRuntime) + " initialized",
                                                   runtimeName(m_callingRuntime));
    const int loggingLevel = ConfigHandler::ConfigHandler::GetLoggingLevel();
    if (m_runtimeInfoPrinted || loggingLevel == 0) {
        return;
    }
    std::cout << m_launcher->GetRuntimeInfo() << std::endl;
    m_runtimeInfoPrinted = true;
}

int NativeReceiver::SendCommand(unsigned char* message, int length) {
    return m_launcher->SendCommand(message, length);
}

int NativeReceiver::ReadResponse(unsigned char* buffer, int length) {
    const int result = m_launcher->ReadResponse(buffer, length);
    if (length >= CommandHeader::size &&
        buffer[CommandHeader::commandType] ==
            static_cast<unsigned char>(CommandType::ExceptionReply)) {
        LogException(buffer, length);
    }
    return result;
}

void NativeReceiver::LogException(unsigned char* message, int length) {
    std::string text;
    if (length > 0) {
        text.reserve(static_cast<std::size_t>(length));
        for (int i = 0; i < length; ++i) {
            const unsigned char byte = message[i];
            text.push_back(byte >= 32 && byte <= 126 ? static_cast<char>(byte) : ' ');
        }
    }
    AppInsightLogger::AppInsightLogger::LogMessage(runtimeName(m_calledRuntime) + " exception",
                                                   text, runtimeName(m_callingRuntime));
}

unsigned char NativeReceiver::LoadOptimizedMethod(std::string method) {
    return m_launcher->LoadOptimizedMethod(std::move(method));
}

unsigned char NativeReceiver::SetEmbeddedRuntime(unsigned char runtimeVersion, std::string path) {
    return m_launcher->SetPath(runtimeVersion, std::move(path));
}

unsigned char NativeReceiver::DeployRuntime(unsigned char* message, int length, std::string text,
                                            unsigned char flag) {
    return m_launcher->DeployRuntime(message, length, std::move(text), flag);
}

}  // namespace Ostrelink::Native::Receiver
