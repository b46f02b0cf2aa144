#include "endpoints/RaceSupport.h"

#include <cstdlib>
#include <thread>
#include <vector>

#include <ostrelink/RuntimeFactories.h>

#include "common/HostLibrary.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::CreateTransmitterFn;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;

// Spins rather than sleeps: threads woken from a condition variable leave one by one, and the
// first may be done before the next wakes.
void StartLine::arriveAndWait() {
    m_arrived.fetch_add(1);
    while (m_arrived.load() < m_runners) {
        std::this_thread::yield();
    }
}

void runTogether(std::size_t count, const std::function<void(std::size_t)>& body) {
    StartLine start(count);
    std::vector<std::thread> threads;
    threads.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        threads.emplace_back([&start, &body, index] {
            start.arriveAndWait();
            body(index);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

void quietFailures(const std::string& logDirectory) {
    setenv("OSTRELINK_LOGGING_LEVEL", "off", 1);
    using SetWorkingDirectoryPathFn = int (*)(std::string);
    HostLibrary::jvmRuntime().get<SetWorkingDirectoryPathFn>(
        "_Z23SetWorkingDirectoryPathNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")(
        logDirectory);
}

std::string taggedPayload(std::size_t thread, std::size_t sequence) {
    return "thread " + std::to_string(thread) + " message " + std::to_string(sequence);
}

IReceiver* createReceiver(RuntimeOperationMode mode) {
    return HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver")(mode);
}

ITransmitter* createTransmitter(RuntimeOperationMode mode) {
    return HostLibrary::jvmRuntime().get<CreateTransmitterFn>("CreateTransmitter")(mode);
}
