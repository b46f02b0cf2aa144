#include "StressWorkload.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <thread>
#include <utility>

#include <ostrelink/CommandHeader.h>
#include <ostrelink/CommandType.h>
#include <ostrelink/Runtime.h>

namespace Ostrelink::Tools::Stress {

namespace {

using Native::Definitions::acknowledgeReply;
using Native::Definitions::CommandHeader;
using Native::Definitions::CommandType;
using Native::Definitions::Runtime;
using Bytes = std::vector<unsigned char>;

constexpr auto jvmRuntime = static_cast<unsigned char>(Runtime::Jvm);
constexpr auto cppRuntime = static_cast<unsigned char>(Runtime::Cpp);
constexpr auto heartBeatCommand = static_cast<unsigned char>(CommandType::HeartBeatCommand);
constexpr auto loadLibraryCommand = static_cast<unsigned char>(CommandType::LoadLibraryCommand);
constexpr std::size_t keptProblems = 20;

Bytes message(unsigned char target, unsigned char commandType, const std::string& payload) {
    Bytes bytes(static_cast<std::size_t>(CommandHeader::payloadTextOffset) + payload.size(), 0);
    bytes[CommandHeader::targetRuntime] = target;
    bytes[CommandHeader::callingRuntime] = jvmRuntime;
    bytes[CommandHeader::commandType] = commandType;
    std::copy(payload.begin(), payload.end(), bytes.begin() + CommandHeader::payloadTextOffset);
    return bytes;
}

void routeOverTcp(Bytes& bytes, unsigned short port) {
    bytes[CommandHeader::connectionType] = 1;
    const unsigned char loopback[4] = {127, 0, 0, 1};
    std::copy(loopback, loopback + 4, bytes.begin() + CommandHeader::hostAddress);
    bytes[CommandHeader::hostPort] = static_cast<unsigned char>(port & 0xFF);
    bytes[CommandHeader::hostPort + 1] = static_cast<unsigned char>(port >> 8);
}

Bytes acknowledgement() {
    return Bytes(std::begin(acknowledgeReply), std::end(acknowledgeReply));
}

template <typename Endpoint>
Bytes sendAndRead(Endpoint* endpoint, Bytes bytes) {
    const int length = endpoint->SendCommand(bytes.data(), static_cast<int>(bytes.size()));
    // The first byte names the runtime to read from; only the in-memory channel looks at it.
    Bytes reply(static_cast<std::size_t>(length > 0 ? length : 1), bytes[0]);
    endpoint->ReadResponse(reply.data(), length);
    reply.resize(static_cast<std::size_t>(length));
    return reply;
}

// Lets all threads of a phase leave together.
class StartLine {
public:
    explicit StartLine(std::size_t runners) : m_waiting(runners) {}
    void arriveAndWait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (--m_waiting == 0) {
            m_open.notify_all();
            return;
        }
        m_open.wait(lock, [this] { return m_waiting == 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_open;
    std::size_t m_waiting;
};

}  // namespace

const char* roadName(Road road) {
    switch (road) {
        case Road::JavaEcho:
            return "java echo";
        case Road::HealthCheck:
            return "health check";
        case Road::HeartBeat:
            return "heartbeat";
        case Road::LoadLibrary:
            return "load library";
        case Road::FailingInbound:
            return "failing inbound";
        case Road::InMemoryEcho:
            return "in-memory echo";
        case Road::TcpEcho:
            return "tcp echo";
        case Road::RefusedOutbound:
            return "refused outbound";
    }
    return "?";
}

std::size_t PhaseResult::commands() const {
    std::size_t total = 0;
    for (const auto& road : roads) {
        total += road.sent;
    }
    return total;
}

std::size_t PhaseResult::wrong() const {
    std::size_t total = 0;
    for (const auto& road : roads) {
        total += road.wrong;
    }
    return total;
}

Road StressWorkload::schedule(std::size_t sequence) const {
    static constexpr Road cycle[] = {Road::JavaEcho,       Road::HealthCheck,  Road::JavaEcho,
                                     Road::HeartBeat,      Road::InMemoryEcho, Road::LoadLibrary,
                                     Road::FailingInbound, Road::TcpEcho,      Road::InMemoryEcho,
                                     Road::RefusedOutbound};
    const Road road = cycle[sequence % (sizeof(cycle) / sizeof(cycle[0]))];
    return road == Road::TcpEcho && m_targets.tcpPort == 0 ? Road::InMemoryEcho : road;
}

PhaseResult StressWorkload::run(std::size_t threads, std::size_t commandsPerThread,
                                std::size_t firstSequence) {
    std::vector<PhaseResult> perThread(threads);
    StartLine start(threads + 1);
    std::vector<std::thread> workers;
    workers.reserve(threads);
    for (std::size_t thread = 0; thread < threads; ++thread) {
        workers.emplace_back([&, thread] {
            start.arriveAndWait();
            auto& counts = perThread[thread].roads;
            for (std::size_t sequence = firstSequence; sequence < firstSequence + commandsPerThread;
                 ++sequence) {
                // Threads start at different points of the cycle, so that all roads run at once.
                const Road road = schedule(sequence + thread);
                auto& count = counts[static_cast<std::size_t>(road)];
                ++count.sent;
                ++(send(road, thread, sequence) ? count.right : count.wrong);
            }
        });
    }
    const auto began = std::chrono::steady_clock::now();
    start.arriveAndWait();
    for (auto& worker : workers) {
        worker.join();
    }
    PhaseResult total;
    total.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    for (const auto& result : perThread) {
        for (std::size_t road = 0; road < roadCount; ++road) {
            total.roads[road].sent += result.roads[road].sent;
            total.roads[road].right += result.roads[road].right;
            total.roads[road].wrong += result.roads[road].wrong;
        }
    }
    return total;
}

// One command; true when the outcome was the expected one.
bool StressWorkload::send(Road road, std::size_t thread, std::size_t sequence) {
    const std::string tag = "stress thread " + std::to_string(thread) + " sequence " +
                            std::to_string(sequence) + " " + roadName(road);
    const auto describe = [&](const std::string& what) { noteProblem(tag + ": " + what); };
    auto* receiver = m_targets.receiver;
    auto* transmitter = m_targets.transmitter;
    try {
        switch (road) {
            case Road::JavaEcho: {
                const Bytes request = message(jvmRuntime, 0, tag);
                if (sendAndRead(receiver, request) != request) {
                    describe("the reply is not this thread's own echo");
                    return false;
                }
                return true;
            }
            case Road::HeartBeat: {
                // Java answers a heartbeat with the acknowledgement, whatever it carries.
                if (sendAndRead(receiver, message(jvmRuntime, heartBeatCommand, tag)) !=
                    acknowledgement()) {
                    describe("the reply is not the acknowledgement");
                    return false;
                }
                return true;
            }
            case Road::HealthCheck:
            case Road::LoadLibrary: {
                const Bytes request =
                    road == Road::HealthCheck
                        ? message(jvmRuntime, 0, "health_check" + tag)
                        : message(jvmRuntime, loadLibraryCommand,
                                  m_targets.jars[sequence % m_targets.jars.size()]);
                if (sendAndRead(receiver, request) != acknowledgement()) {
                    describe("the reply is not the acknowledgement");
                    return false;
                }
                return true;
            }
            case Road::FailingInbound: {
                const bool readNothing = (sequence / 10) % 2 == 0;
                const std::string missing = m_targets.missingDirectory + "/" + tag + ".jar";
                try {
                    if (readNothing) {
                        Bytes buffer(17, 0);
                        receiver->ReadResponse(buffer.data(), 17);
                    } else {
                        Bytes request = message(jvmRuntime, loadLibraryCommand, missing);
                        receiver->SendCommand(request.data(), static_cast<int>(request.size()));
                    }
                } catch (const std::exception& error) {
                    const std::string expected =
                        readNothing ? "Exception code 041" : "Cannot find file: " + missing + "\n";
                    if (std::string(error.what()).find(expected) == std::string::npos) {
                        describe(std::string("unexpected failure text: ") + error.what());
                        return false;
                    }
                    return true;
                }
                describe("a command that must fail succeeded");
                return false;
            }
            case Road::InMemoryEcho:
            case Road::TcpEcho: {
                Bytes request = message(road == Road::TcpEcho ? jvmRuntime : cppRuntime, 0, tag);
                if (road == Road::TcpEcho) {
                    routeOverTcp(request, m_targets.tcpPort);
                }
                if (sendAndRead(transmitter, request) != request) {
                    describe("the reply is not this thread's own echo");
                    return false;
                }
                return true;
            }
            case Road::RefusedOutbound: {
                Bytes request = message(cppRuntime, 0, tag);
                request[CommandHeader::connectionType] = 3;
                try {
                    transmitter->SendCommand(request.data(), static_cast<int>(request.size()));
                } catch (const std::exception& error) {
                    if (std::string(error.what()).find("Exception code 023") == std::string::npos) {
                        describe(std::string("unexpected failure text: ") + error.what());
                        return false;
                    }
                    return true;
                }
                describe("an unknown connection type was accepted");
                return false;
            }
        }
    } catch (const std::exception& error) {
        describe(std::string("failed: ") + error.what());
        return false;
    }
    return false;
}

void StressWorkload::noteProblem(const std::string& text) {
    const std::lock_guard<std::mutex> lock(m_problemsMutex);
    if (m_problems.size() < keptProblems) {
        m_problems.push_back(text);
    }
}

std::vector<std::string> StressWorkload::firstProblems() const {
    const std::lock_guard<std::mutex> lock(m_problemsMutex);
    return m_problems;
}

}  // namespace Ostrelink::Tools::Stress
