#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include <ostrelink/IReceiver.h>
#include <ostrelink/ITransmitter.h>

namespace Ostrelink::Tools::Stress {

// The roads a command can take; each thread cycles through them in the order of schedule().
enum class Road {
    JavaEcho,         // receiver, commandType 0, echoed by the Java receiver class
    HealthCheck,      // receiver, answered natively
    HeartBeat,        // receiver, commandType 11, acknowledged by Java's heartBeat
    LoadLibrary,      // receiver, an existing jar: acknowledged natively
    FailingInbound,   // receiver: a missing jar (code 004) or a read with nothing stored (041)
    InMemoryEcho,     // transmitter, in memory to the Cpp runtime stand-in, which echoes
    TcpEcho,          // transmitter, TCP to ostrelink-server, echoed by Java in that process
    RefusedOutbound,  // transmitter, unknown connectionType: code 023
};
inline constexpr std::size_t roadCount = 8;
const char* roadName(Road road);

struct RoadCounts {
    std::size_t sent = 0;
    std::size_t right = 0;  // the expected reply, or the expected failure
    std::size_t wrong = 0;  // another reply, a failure that should not be, or none that should
};

struct PhaseResult {
    std::array<RoadCounts, roadCount> roads{};
    double seconds = 0;
    std::size_t commands() const;
    std::size_t wrong() const;
};

// Everything a thread sends to. The receiver must be initialised; tcpPort 0 leaves out the TCP
// road.
struct Targets {
    Ostrelink::Native::Interfaces::IReceiver* receiver = nullptr;
    Ostrelink::Native::Interfaces::ITransmitter* transmitter = nullptr;
    unsigned short tcpPort = 0;
    std::vector<std::string> jars;  // existing files for load-library commands
    std::string missingDirectory;   // where the missing jars of failing commands would be
};

// Runs a phase: threads send commandsPerThread commands each, all starting at once, and check
// every reply. Sequence numbers start at firstSequence, so that no two phases send the same
// payload.
class StressWorkload {
public:
    explicit StressWorkload(Targets targets) : m_targets(std::move(targets)) {}

    PhaseResult run(std::size_t threads, std::size_t commandsPerThread, std::size_t firstSequence);
    // The first few wrong outcomes of all phases, for the report.
    std::vector<std::string> firstProblems() const;

private:
    Road schedule(std::size_t sequence) const;
    bool send(Road road, std::size_t thread, std::size_t sequence);
    void noteProblem(const std::string& text);

    Targets m_targets;
    mutable std::mutex m_problemsMutex;
    std::vector<std::string> m_problems;
};

}  // namespace Ostrelink::Tools::Stress
