#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>

#include <ostrelink/IReceiver.h>
#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeOperationMode.h>

#include "common/Calls.h"

// Lets a group of threads leave together, so that their first calls meet.
class StartLine {
public:
    explicit StartLine(std::size_t runners) : m_runners(runners) {}
    void arriveAndWait();

private:
    const std::size_t m_runners;
    std::atomic<std::size_t> m_arrived{0};
};

// Runs body(index) on count threads that start at once, and joins them.
void runTogether(std::size_t count, const std::function<void(std::size_t)>& body);

// Failures of the library write no line, and no record unless logDirectory exists: by default
// hundreds of expected failures cost no 50 ms pause each.
void quietFailures(const std::string& logDirectory = "/nonexistent/ostrelink-race-tests");

// A payload that names its thread and sequence number, so that a reply that went astray shows.
std::string taggedPayload(std::size_t thread, std::size_t sequence);

Ostrelink::Native::Interfaces::IReceiver* createReceiver(
    Ostrelink::Native::Definitions::RuntimeOperationMode mode);
Ostrelink::Native::Interfaces::ITransmitter* createTransmitter(
    Ostrelink::Native::Definitions::RuntimeOperationMode mode);
