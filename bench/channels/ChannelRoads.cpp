// The outbound roads of the transmitter, each beside a baseline in the same process: the
// in-memory channel against a direct call of the target runtime's receiver, and the TCP and TLS
// channels (client library, ostrelink-server, the server's receiver) against a bare client and
// server on loopback with the same framing, compared by the CPU time of both ends per round trip.
// Under load, 16 host threads share the transmitter to one ostrelink-server, against 16 bare
// clients of their own to the same server.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <time.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include <ostrelink/RuntimeFactories.h>

#include "channels/BareLoopback.h"
#include "common/ChildProcess.h"
#include "common/HostLibrary.h"
#include "common/Messages.h"
#include "common/TestCertificates.h"
#include "support/StagedRuntime.h"
#include "support/Summary.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::CreateTransmitterFn;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;

namespace {

constexpr unsigned char cppRuntime = 8;
constexpr unsigned char jvmRuntime = 2;
constexpr unsigned char loopbackAddress[4] = {127, 0, 0, 1};
constexpr int concurrentThreads = 16;

// ostrelink-server of the staged tree on a port of its choosing; ended by its pid.
class Server {
public:
    explicit Server(const TestCertificates* tls) : m_process(start(tls)) {
        const std::string prefix = "listening on 127.0.0.1:";
        for (;;) {
            const std::string line = m_process.readLine(30000);
            if (line.rfind(prefix, 0) == 0) {
                m_port = static_cast<unsigned short>(std::stoi(line.substr(prefix.size())));
                return;
            }
        }
    }
    unsigned short port() const { return m_port; }
    pid_t pid() const { return m_process.pid(); }

private:
    static ChildProcess start(const TestCertificates* tls) {
        // Connections of the bare client sit idle while other benchmarks run.
        std::vector<std::string> arguments{"--port", "0", "--idle-timeout-ms", "3600000"};
        if (tls != nullptr) {
            arguments.insert(arguments.end(), {"--tls-cert", tls->serverCert, "--tls-key",
                                               tls->serverKey, "--tls-client-ca", tls->caCert});
        }
        ChildProcess::Options options;
        options.captureStdout = true;
        return ChildProcess(std::string(OSTRELINK_BIN_DIR) + "ostrelink-server", arguments,
                            options);
    }
    ChildProcess m_process;
    unsigned short m_port = 0;
};

struct Roads {
    ITransmitter* transmitter = nullptr;
    IReceiver* cppReceiver = nullptr;
    std::unique_ptr<TestCertificates> certificate;
    std::unique_ptr<Server> tcpServer;
    std::unique_ptr<Server> tlsServer;
    std::unique_ptr<BareLoopback> bareTcp;
    std::unique_ptr<BareLoopback> bareTls;
    std::unique_ptr<BareLoopback> bareClientTcp;
    std::unique_ptr<BareLoopback> bareClientTls;
    std::string networkFailure;
};

Roads roads;

template <typename Body>
void loop(benchmark::State& state, Body&& body) {
    try {
        for (auto _ : state) {
            body();
        }
    } catch (const std::exception& failure) {
        state.SkipWithError(failure.what());
    }
}

int transmit(Bytes& message, Bytes& reply) {
    const int length =
        roads.transmitter->SendCommand(message.data(), static_cast<int>(message.size()));
    if (length < 0 || static_cast<std::size_t>(length) > reply.size()) {
        throw std::runtime_error("reply of " + std::to_string(length) + " bytes does not fit");
    }
    // The in-memory channel reads from the runtime named in the buffer's first byte.
    reply[0] = message[0];
    roads.transmitter->ReadResponse(reply.data(), length);
    return length;
}

void inMemoryOurs(benchmark::State& state) {
    Bytes message = echoMessage(32, cppRuntime);
    message[Ostrelink::Native::Definitions::CommandHeader::callingRuntime] = jvmRuntime;
    Bytes reply(message.size());
    loop(state, [&] { benchmark::DoNotOptimize(transmit(message, reply)); });
}

void inMemoryDirect(benchmark::State& state) {
    Bytes message = echoMessage(32, cppRuntime);
    message[Ostrelink::Native::Definitions::CommandHeader::callingRuntime] = jvmRuntime;
    Bytes reply(message.size());
    loop(state, [&] { benchmark::DoNotOptimize(roundTrip(*roads.cppReceiver, message, reply)); });
}

// CPU time of this process, and of the server process if given (user and system, all threads).
double cpuNanoseconds(const Server* server) {
    double total = 0;
    for (const pid_t pid : {pid_t{0}, server != nullptr ? server->pid() : pid_t{-1}}) {
        clockid_t clock = CLOCK_PROCESS_CPUTIME_ID;
        timespec now{};
        if (pid < 0 || (pid > 0 && clock_getcpuclockid(pid, &clock) != 0) ||
            clock_gettime(clock, &now) != 0) {
            continue;
        }
        total += static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
    }
    return total;
}

// The loop of a network road, with the CPU time of both ends per round trip as the counter
// "cpu_ns": this process (client, and the bare server thread) and the server process, if any.
template <typename Body>
void networkLoop(benchmark::State& state, const Server* server, Body&& body) {
    const double before = cpuNanoseconds(server);
    loop(state, body);
    state.counters["cpu_ns"] =
        benchmark::Counter(cpuNanoseconds(server) - before, benchmark::Counter::kAvgIterations);
}

Bytes networkHealthCheck(unsigned char connectionType, unsigned short port) {
    Bytes message = healthCheckMessage(jvmRuntime);
    message[Ostrelink::Native::Definitions::CommandHeader::callingRuntime] = jvmRuntime;
    setRoute(message, connectionType, loopbackAddress, port);
    return message;
}

void networkOurs(benchmark::State& state, bool tls) {
    if (!roads.networkFailure.empty()) {
        state.SkipWithError(roads.networkFailure.c_str());
        return;
    }
    const Server& server = tls ? *roads.tlsServer : *roads.tcpServer;
    Bytes message = networkHealthCheck(tls ? 2 : 1, server.port());
    Bytes reply(64);
    networkLoop(state, &server, [&] { benchmark::DoNotOptimize(transmit(message, reply)); });
}

void networkBare(benchmark::State& state, bool tls, bool toServer) {
    if (!roads.networkFailure.empty()) {
        state.SkipWithError(roads.networkFailure.c_str());
        return;
    }
    BareLoopback& bare = toServer ? (tls ? *roads.bareClientTls : *roads.bareClientTcp)
                                  : (tls ? *roads.bareTls : *roads.bareTcp);
    const Bytes message = networkHealthCheck(tls ? 2 : 1, 0);
    Bytes reply(64);
    const Server* server = toServer ? (tls ? roads.tlsServer : roads.tcpServer).get() : nullptr;
    networkLoop(state, server, [&] {
        benchmark::DoNotOptimize(bare.roundTrip(message.data(), static_cast<int>(message.size()),
                                                reply.data(), static_cast<int>(reply.size())));
    });
}

void concurrentOurs(benchmark::State& state) {
    if (!roads.networkFailure.empty()) {
        state.SkipWithError(roads.networkFailure.c_str());
        return;
    }
    Bytes message = networkHealthCheck(1, roads.tcpServer->port());
    Bytes reply(64);
    loop(state, [&] { benchmark::DoNotOptimize(transmit(message, reply)); });
    state.SetItemsProcessed(state.iterations());
}

// Each thread connects its own bare client before the timing starts.
void concurrentBare(benchmark::State& state) {
    if (!roads.networkFailure.empty()) {
        state.SkipWithError(roads.networkFailure.c_str());
        return;
    }
    std::unique_ptr<BareLoopback> client;
    try {
        client = std::make_unique<BareLoopback>(roads.tcpServer->port(), nullptr);
    } catch (const std::exception& failure) {
        state.SkipWithError(failure.what());
        return;
    }
    const Bytes message = networkHealthCheck(1, 0);
    Bytes reply(64);
    loop(state, [&] {
        benchmark::DoNotOptimize(client->roundTrip(message.data(), static_cast<int>(message.size()),
                                                   reply.data(), static_cast<int>(reply.size())));
    });
    state.SetItemsProcessed(state.iterations());
}

void setUpInMemory() {
    const auto createTransmitter =
        HostLibrary::jvmRuntime().get<CreateTransmitterFn>("CreateTransmitter");
    roads.transmitter = createTransmitter(RuntimeOperationMode::Calling);
    if (roads.transmitter == nullptr) {
        throw std::runtime_error("CreateTransmitter(0) returned null");
    }
    // The channel opens the stand-in by this same path, so both roads reach one receiver.
    static HostLibrary cppLibrary(HostLibrary::stagedPath("OstrelinkCppRuntimeNative"));
    roads.cppReceiver =
        cppLibrary.get<CreateReceiverFn>("CreateReceiver")(RuntimeOperationMode::Called);
    roads.cppReceiver->Initialize(jvmRuntime, cppRuntime, 0);
    Bytes message = echoMessage(32, cppRuntime);
    message[Ostrelink::Native::Definitions::CommandHeader::callingRuntime] = jvmRuntime;
    Bytes reply(message.size());
    if (transmit(message, reply) != 32 || reply != message) {
        throw std::runtime_error("the in-memory channel gave no echo");
    }
}

// The network roads share the test PKI: the server presents its server certificate, the client
// library and the bare client trust its CA.
void setUpNetwork() {
    roads.certificate = std::make_unique<TestCertificates>();
    setenv("OSTRELINK_TLS_CA_FILE", roads.certificate->caCert.c_str(), 1);
    setenv("OSTRELINK_TLS_CERT_FILE", roads.certificate->clientCert.c_str(), 1);
    setenv("OSTRELINK_TLS_KEY_FILE", roads.certificate->clientKey.c_str(), 1);
    roads.tcpServer = std::make_unique<Server>(nullptr);
    roads.tlsServer = std::make_unique<Server>(roads.certificate.get());
    roads.bareTcp = std::make_unique<BareLoopback>();
    roads.bareTls = std::make_unique<BareLoopback>(roads.certificate.get());
    roads.bareClientTcp = std::make_unique<BareLoopback>(roads.tcpServer->port(), nullptr);
    roads.bareClientTls =
        std::make_unique<BareLoopback>(roads.tlsServer->port(), roads.certificate.get());
    for (const bool tls : {false, true}) {
        Bytes message =
            networkHealthCheck(tls ? 2 : 1, (tls ? roads.tlsServer : roads.tcpServer)->port());
        Bytes reply(64);
        if (transmit(message, reply) != 17 ||
            !std::equal(reply.begin(), reply.begin() + 17, acknowledgeBytes().begin())) {
            throw std::runtime_error(std::string("the ") + (tls ? "TLS" : "TCP") +
                                     " channel gave no acknowledgement");
        }
    }
}

void registerBenchmarks() {
    benchmark::RegisterBenchmark("in_memory/ours", inMemoryOurs);
    benchmark::RegisterBenchmark("in_memory/direct", inMemoryDirect);
    benchmark::RegisterBenchmark("tcp/ours", networkOurs, false)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("tcp/bare", networkBare, false, false)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("tcp/bare_client_to_server", networkBare, false, true)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("tls/ours", networkOurs, true)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("tls/bare", networkBare, true, false)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("tls/bare_client_to_server", networkBare, true, true)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("tcp_concurrent/ours", concurrentOurs)
        ->Threads(concurrentThreads)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("tcp_concurrent/bare_clients", concurrentBare)
        ->Threads(concurrentThreads)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

void printTable(const Summary& summary) {
    {
        const auto ours = summary.nanoseconds("in_memory/ours");
        const auto direct = summary.nanoseconds("in_memory/direct");
        std::optional<double> overhead;
        if (ours && direct) {
            overhead = *ours - *direct;
        }
        tableRow("In-memory channel, 32 B echo to the Cpp stand-in", formatNanoseconds(ours),
                 formatNanoseconds(direct) + " (its receiver called directly)",
                 overhead ? "+" + formatNanoseconds(overhead) : "–", "overhead ≤ 60 ns",
                 verdict(overhead, overhead && *overhead <= 60));
    }
    // CPU time of both ends per round trip: on a shared machine of two cores, the clock of a
    // ping-pong between two processes is mostly the wake-ups, which the CPU time leaves out.
    for (const char* channel : {"tcp", "tls"}) {
        const std::string name = channel;
        const auto cpu = [&](const std::string& road) {
            return summary.counter(name + "/" + road, "cpu_ns");
        };
        const auto ratio = divide(cpu("ours"), cpu("bare"));
        const double goal = name == "tcp" ? 1.3 : 1.15;
        tableRow(std::string(name == "tcp" ? "TCP channel, health check"
                                           : "TLS channel (mutual, TLS 1.3, AES-256-GCM, X25519), "
                                             "health check") +
                     ", CPU time of both ends per round trip (clock)",
                 formatNanoseconds(cpu("ours")) + " (" +
                     formatNanoseconds(summary.nanoseconds(name + "/ours")) + ")",
                 formatNanoseconds(cpu("bare")) + " (" +
                     formatNanoseconds(summary.nanoseconds(name + "/bare")) +
                     ") bare loopback client and server; bare client to ostrelink-server " +
                     formatNanoseconds(cpu("bare_client_to_server")) + " (" +
                     formatNanoseconds(summary.nanoseconds(name + "/bare_client_to_server")) + ")",
                 formatRatio(ratio), "≤ " + formatRatio(goal),
                 verdict(ratio, ratio && *ratio <= goal));
        const std::string failure = summary.error(name + "/ours");
        if (!failure.empty()) {
            std::cerr << name << "/ours failed: " << failure << std::endl;
        }
    }
    const auto ours = summary.counter("tcp_concurrent/ours", "items_per_second", concurrentThreads);
    const auto bare =
        summary.counter("tcp_concurrent/bare_clients", "items_per_second", concurrentThreads);
    const auto ratio = divide(ours, bare);
    tableRow("TCP channel, " + std::to_string(concurrentThreads) +
                 " host threads through the transmitter to one ostrelink-server, health checks",
             formatRate(ours),
             formatRate(bare) + " (" + std::to_string(concurrentThreads) +
                 " bare clients to the same server)",
             formatRatio(ratio), "≥ 0.8", verdict(ratio, ratio && *ratio >= 0.8));
}

}  // namespace

int main(int argc, char** argv) {
    initializeBenchmarks(argc, argv);
    // A host that writes to sockets ignores SIGPIPE, as the client library expects.
    signal(SIGPIPE, SIG_IGN);
    try {
        setUpInMemory();
    } catch (const std::exception& failure) {
        std::cerr << "Channel roads: cannot set up the in-memory channel: " << failure.what()
                  << std::endl;
        return 1;
    }
    try {
        setUpNetwork();
    } catch (const std::exception& failure) {
        roads.networkFailure = failure.what();
        std::cerr << "Channel roads: cannot set up the network channels: " << failure.what()
                  << std::endl;
    }
    registerBenchmarks();
    Summary summary;
    benchmark::RunSpecifiedBenchmarks(&summary);
    printTable(summary);
    roads.bareClientTls.reset();
    roads.bareClientTcp.reset();
    roads.bareTls.reset();
    roads.bareTcp.reset();
    roads.tlsServer.reset();
    roads.tcpServer.reset();
    return roads.networkFailure.empty() ? 0 : 1;
}
