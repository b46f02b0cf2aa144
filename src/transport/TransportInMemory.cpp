#include "transport/TransportInMemory.h"

#include <dlfcn.h>

#include <cstdio>
#include <mutex>
#include <utility>

#include "contracts/CommandHeader.h"
#include "contracts/CommandType.h"
#include "contracts/RuntimeFactories.h"
#include "support/Failures.h"
#include "support/LibrariesFinder.h"
#include "support/OstrelinkNativeException.h"
#include "support/RuntimeNameHandler.h"
#include "support/ThreadRecord.h"

namespace Ostrelink::Native::Transport {

using Definitions::CommandHeader;
using Definitions::RuntimeOperationMode;
using Failures::Failure;
using Failures::raise;
using Interfaces::CreateReceiverFn;
using Interfaces::CreateTransmitterFn;
using Interfaces::IReceiver;
using Interfaces::ITransmitter;
using LibrariesFinder::LibrariesFinder;

namespace {

// Serialises every Initialize of every channel of this library. Not recursive: nothing that
// runs inside Initialize (a factory, a receiver's Initialize) may come back into Initialize on
// the same thread.
std::mutex initializationMutex;

constexpr int firstRuntime = 0;
constexpr int lastRuntime = Definitions::highestRuntimeCode;

bool isRuntime(int code) {
    return code >= firstRuntime && code <= lastRuntime;
}

}  // namespace

// A link of the chain of DeployRuntime calls that a thread is inside (its record holds the
// innermost).
struct DeployScope {
    const TransportInMemory* channel;
    const DeployScope* outer;
};

TransportInMemory::TransportInMemory() {
    for (int code = firstRuntime; code <= lastRuntime; ++code) {
        m_libraries[code] = nullptr;
    }
}

TransportInMemory::~TransportInMemory() {
    for (int code = firstRuntime; code <= lastRuntime; ++code) {
        const bool gaveObjects = m_receivers[code] != nullptr || m_transmitters[code] != nullptr;
        if (m_libraries[code] != nullptr && !gaveObjects) {
            dlclose(m_libraries[code]);
        }
        m_libraries[code] = nullptr;
    }
}

int TransportInMemory::Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                                  unsigned char runtimeVersion) {
    const std::uint32_t readyKey = (callingRuntime | calledRuntime << 8) + 1U;
    if (m_readyPair.load(std::memory_order_acquire) == readyKey) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(initializationMutex);
    const std::pair<unsigned char, unsigned char> pair{callingRuntime, calledRuntime};
    if ((m_libraries[callingRuntime] != nullptr || m_failedCallingHalves.count(pair) != 0) &&
        m_libraries[calledRuntime] != nullptr) {
        m_readyPair.store(readyKey, std::memory_order_release);
        return 0;
    }
    m_lastPair.store(
        static_cast<std::uint32_t>(callingRuntime | calledRuntime << 8 | runtimeVersion << 16),
        std::memory_order_release);

    ImportCalledLibrary();
    CreateReceiverInCalledRuntime();
    CreateTransmitterInCalledRuntime();

    // A sender whose own library can't be set up still reaches the called runtime; the
    // exception's constructor has left the only record of it. The pair is not set up again:
    // retrying would cost every later message of it a load attempt and a record, under the lock.
    try {
        ImportCallingLibrary();
        CreateReceiverInCallingRuntime();
        CreateTransmitterInCallingRuntime();
    } catch (const OstrelinkNativeException&) {
        m_failedCallingHalves.insert(pair);
    }
    return 0;
}

int TransportInMemory::SendCommand(unsigned char* message, int length) {
    return receiverOf(message[CommandHeader::targetRuntime])->SendCommand(message, length);
}

int TransportInMemory::ReadResponse(unsigned char* buffer, int length) {
    if (buffer == nullptr || length < 1) {
        raise(Failure::EmptyResponseBuffer);
    }
    return receiverOf(buffer[CommandHeader::targetRuntime])->ReadResponse(buffer, length);
}

unsigned char TransportInMemory::SetEmbeddedRuntime(unsigned char, unsigned char,
                                                    unsigned char runtimeVersion,
                                                    std::string path) {
    return receiverOf(lastPair().calledRuntime)
        ->SetEmbeddedRuntime(runtimeVersion, std::move(path));
}

unsigned char TransportInMemory::DeployRuntime(unsigned char* message, int length, std::string text,
                                               unsigned char flag) {
    const DeployScope*& deploying = ThreadRecord::ofThisThread().deploying;
    for (const DeployScope* scope = deploying; scope != nullptr; scope = scope->outer) {
        if (scope->channel == this) {
            raise(Failure::DeployLoopsBack);
        }
    }
    ITransmitter* const target = transmitterOf(lastPair().calledRuntime);
    const DeployScope scope{this, deploying};
    deploying = &scope;
    struct Leave {
        const DeployScope*& deploying;
        const DeployScope* outer;
        ~Leave() { deploying = outer; }
    } leave{deploying, scope.outer};
    return target->DeployRuntime(message, length, std::move(text), flag);
}

void TransportInMemory::ImportCalledLibrary() {
    importLibrary(lastPair().calledRuntime);
}

void TransportInMemory::CreateReceiverInCalledRuntime() {
    createReceiver(lastPair().calledRuntime, RuntimeOperationMode::Called,
                   Failure::NoCreateReceiverInCalled, Failure::NullReceiverInCalled);
}

void TransportInMemory::CreateTransmitterInCalledRuntime() {
    createTransmitter(lastPair().calledRuntime, RuntimeOperationMode::Called);
}

void TransportInMemory::ImportCallingLibrary() {
    importLibrary(lastPair().callingRuntime);
}

void TransportInMemory::CreateReceiverInCallingRuntime() {
    createReceiver(lastPair().callingRuntime, RuntimeOperationMode::Calling,
                   Failure::NoCreateReceiverInCalling, Failure::NullReceiverInCalling);
}

void TransportInMemory::CreateTransmitterInCallingRuntime() {
    createTransmitter(lastPair().callingRuntime, RuntimeOperationMode::Calling);
}

void TransportInMemory::SendHeartBeatToCalledRuntime() {
    std::puts("SendHeartBeatToCalledRuntime");
    std::fflush(stdout);
    const LastPair pair = lastPair();
    sendHeartBeat(pair.calledRuntime, pair.runtimeVersion, pair.callingRuntime);
}

void TransportInMemory::SendHeartBeatToCallingRuntime() {
    std::puts("SendHeartBeatToCallingRuntime");
    std::fflush(stdout);
    const LastPair pair = lastPair();
    sendHeartBeat(pair.callingRuntime, 0, pair.calledRuntime);
}

void TransportInMemory::importLibrary(int code) {
    void*& handle = m_libraries[code];
    if (handle != nullptr) {
        return;
    }
    handle = LibrariesFinder::loadLibrary(LibrariesFinder::getRuntimeLibraryPath(code), true, true);
}

void TransportInMemory::createReceiver(int code, RuntimeOperationMode mode, Failure missing,
                                       Failure null) {
    if (!isRuntime(code)) {
        raise(
            Failure::NoChannelObject,
            "receiver of runtime " + RuntimeNameHandler::RuntimeNameHandler::GetRuntimeName(code));
    }
    std::atomic<IReceiver*>& entry = m_receivers[code];
    if (entry.load(std::memory_order_relaxed) != nullptr) {  // written only under this lock
        return;
    }
    void* symbol = dlsym(m_libraries[code], "CreateReceiver");
    if (symbol == nullptr) {
        raise(missing);
    }
    IReceiver* created = reinterpret_cast<CreateReceiverFn>(symbol)(mode);
    if (created == nullptr) {
        raise(null);
    }
    // A receiver whose Initialize throws is not stored; the next attempt asks the factory again.
    const LastPair pair = lastPair();
    created->Initialize(pair.callingRuntime, pair.calledRuntime, pair.runtimeVersion);
    entry.store(created, std::memory_order_release);
}

void TransportInMemory::createTransmitter(int code, RuntimeOperationMode mode) {
    if (!isRuntime(code)) {
        raise(Failure::NoChannelObject,
              "transmitter of runtime " +
                  RuntimeNameHandler::RuntimeNameHandler::GetRuntimeName(code));
    }
    std::atomic<ITransmitter*>& entry = m_transmitters[code];
    if (entry.load(std::memory_order_relaxed) != nullptr) {  // written only under this lock
        return;
    }
    void* symbol = dlsym(m_libraries[code], "CreateTransmitter");
    if (symbol == nullptr) {
        raise(Failure::NoCreateTransmitter);
    }
    ITransmitter* created = reinterpret_cast<CreateTransmitterFn>(symbol)(mode);
    if (created == nullptr) {
        raise(Failure::NullTransmitter);
    }
    entry.store(created, std::memory_order_release);
}

void TransportInMemory::sendHeartBeat(unsigned char targetRuntime, unsigned char runtimeVersion,
                                      unsigned char callingRuntime) {
    constexpr int length = Definitions::heartBeatMessageLength;
    auto message = std::make_unique<unsigned char[]>(length);  // zeroed: bytes 2 to 8 stay 0
    message[CommandHeader::targetRuntime] = targetRuntime;
    message[CommandHeader::runtimeVersion] = runtimeVersion;
    message[CommandHeader::callingRuntime] = callingRuntime;
    message[CommandHeader::commandType] =
        static_cast<unsigned char>(Definitions::CommandType::HeartBeatCommand);
    message[11] = 0x31;
    message[12] = 0x32;
    receiverOf(targetRuntime)->SendCommand(message.get(), length);
}

TransportInMemory::LastPair TransportInMemory::lastPair() const {
    const std::uint32_t packed = m_lastPair.load(std::memory_order_acquire);
    return {static_cast<unsigned char>(packed), static_cast<unsigned char>(packed >> 8),
            static_cast<unsigned char>(packed >> 16)};
}

IReceiver* TransportInMemory::receiverOf(int code) const {
    IReceiver* entry =
        isRuntime(code) ? m_receivers[code].load(std::memory_order_acquire) : nullptr;
    if (entry == nullptr) {
        raise(
            Failure::NoChannelObject,
            "receiver of runtime " + RuntimeNameHandler::RuntimeNameHandler::GetRuntimeName(code));
    }
    return entry;
}

ITransmitter* TransportInMemory::transmitterOf(int code) const {
    ITransmitter* entry =
        isRuntime(code) ? m_transmitters[code].load(std::memory_order_acquire) : nullptr;
    if (entry == nullptr) {
        raise(Failure::NoChannelObject,
              "transmitter of runtime " +
                  RuntimeNameHandler::RuntimeNameHandler::GetRuntimeName(code));
    }
    return entry;
}

}  // namespace Ostrelink::Native::Transport
