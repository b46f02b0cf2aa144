#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "contracts/IReceiver.h"
#include "contracts/ITransmitter.h"
#include "contracts/ITransport.h"
#include "contracts/Runtime.h"
#include "contracts/RuntimeOperationMode.h"
#include "support/Failures.h"

namespace Ostrelink::Native::Transport {

// The channel for connectionType 0: opens the native libraries of the called and the calling
// runtime, takes a receiver and a transmitter from each library's factories, and delivers a
// message by a virtual call on the target runtime's receiver, passing the caller's bytes.
//
// Ownership. The factories hand out their library's process-wide singletons, which that library
// goes on using and which other channels may hold too. The entries therefore never delete what
// they point at (their deleter does nothing). A library handle stays open for good once a factory
// of that library has given us an object; handles of libraries that gave nothing are closed by
// the destructor, after the entries are gone, so no code of an unloaded library can run.
//
// Threads. initializationMutex (one for the library) covers the whole of Initialize. An entry is
// written once, there, and never changes after: a plain pointer stored with release ordering
// once the object is set up and loaded with acquire ordering on every message, so senders on
// other threads take no lock and never see a half-set-up object. m_libraries is only touched
// under the mutex.
class TransportInMemory : public Interfaces::ITransport {
public:
    TransportInMemory();
    ~TransportInMemory() override;
    TransportInMemory(const TransportInMemory&) = delete;
    TransportInMemory& operator=(const TransportInMemory&) = delete;

    int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                   unsigned char runtimeVersion) override;
    // Goes to the receiver of message[0].
    int SendCommand(unsigned char* message, int length) override;
    // Goes to the receiver of buffer[0]: the caller puts the target runtime there first. A null
    // or empty buffer has no such byte: code 033.
    int ReadResponse(unsigned char* buffer, int length) override;
    // Goes to the called runtime of the last pair that Initialize set up, not to calledRuntime.
    unsigned char SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char calledRuntime,
                                     unsigned char runtimeVersion, std::string path) override;
    // Goes to the transmitter of the called runtime of that same last pair. Throws code 028 if that
    // transmitter sends the call back into this same channel on this thread, which would recurse
    // without end.
    unsigned char DeployRuntime(unsigned char* message, int length, std::string text,
                                unsigned char flag) override;

    void ImportCalledLibrary();
    void CreateReceiverInCalledRuntime();
    void CreateTransmitterInCalledRuntime();
    void ImportCallingLibrary();
    void CreateReceiverInCallingRuntime();
    void CreateTransmitterInCallingRuntime();

    void SendHeartBeatToCalledRuntime();
    void SendHeartBeatToCallingRuntime();

private:
    void importLibrary(int code);
    void createReceiver(int code, Definitions::RuntimeOperationMode mode, Failures::Failure missing,
                        Failures::Failure null);
    void createTransmitter(int code, Definitions::RuntimeOperationMode mode);
    void sendHeartBeat(unsigned char targetRuntime, unsigned char runtimeVersion,
                       unsigned char callingRuntime);
    // The entry of code, or code 019 if the runtime has no such object on this channel.
    Interfaces::IReceiver* receiverOf(int code) const;
    Interfaces::ITransmitter* transmitterOf(int code) const;

    struct LastPair {
        unsigned char callingRuntime;
        unsigned char calledRuntime;
        unsigned char runtimeVersion;
    };
    LastPair lastPair() const;

    // The last pair that went past Initialize's early return, with its version, one byte each.
    // Written under initializationMutex, read without it by SetEmbeddedRuntime, DeployRuntime
    // and the heartbeats on any thread: one atomic word, so a reader never sees half of a pair.
    std::atomic<std::uint32_t> m_lastPair{0x646464};  // 100, 100, 100: no runtime yet
    // By runtime code. Borrowed: the library that made an object destroys it, never the channel.
    std::atomic<Interfaces::IReceiver*> m_receivers[Definitions::highestRuntimeCode + 1] = {};
    std::atomic<Interfaces::ITransmitter*> m_transmitters[Definitions::highestRuntimeCode + 1] = {};
    std::map<int, void*> m_libraries;
    // Pairs (calling, called) whose called half is set up and whose calling half failed. Under
    // initializationMutex.
    std::set<std::pair<unsigned char, unsigned char>> m_failedCallingHalves;
    // The last pair that Initialize found set up, as calling | called << 8, plus one (0: none).
    // A pair once set up stays so, so a message of that pair passes Initialize with one load
    // and no lock.
    std::atomic<std::uint32_t> m_readyPair{0};
};

}  // namespace Ostrelink::Native::Transport
