// The first reply of a fresh process: each repetition starts a new host process and takes the
// time from just before the spawn to the moment the host holds its first Java reply (it reports
// the monotonic clock of that moment), and, as counters, to the moment the process has ended and
// the CPU time the process used in all its threads, which a busy machine disturbs less.
// The library's host and the hand-written host alternate in random order.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include "common/ChildProcess.h"
#include "support/Summary.h"

namespace {

double monotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::string siblingProgram(const std::string& name) {
    char path[PATH_MAX] = {};
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    const std::string self(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return self.substr(0, self.rfind('/') + 1) + name;
}

void firstReply(benchmark::State& state, const std::string& program) {
    ChildProcess::Options options;
    options.reportChannel = true;
    if (std::getenv("JAVA_HOME") == nullptr) {
        options.environment.push_back(std::string("JAVA_HOME=") + OSTRELINK_JAVA_HOME);
    }
    double exitSeconds = 0;
    double cpuSeconds = 0;
    for (auto _ : state) {
        try {
            const double start = monotonicSeconds();
            ChildProcess child(program, {}, options);
            std::istringstream report(child.readReport());
            const int status = child.wait();
            const double ended = monotonicSeconds();
            long long seconds = 0;
            long long nanoseconds = 0;
            if (!(report >> seconds >> nanoseconds) || !WIFEXITED(status) ||
                WEXITSTATUS(status) != 0) {
                state.SkipWithError((program + " failed; its standard error tells why").c_str());
                break;
            }
            const double replied =
                static_cast<double>(seconds) + static_cast<double>(nanoseconds) * 1e-9;
            state.SetIterationTime(replied - start);
            exitSeconds += ended - start;
            cpuSeconds += child.cpuSeconds();
        } catch (const std::exception& failure) {
            state.SkipWithError(failure.what());
            break;
        }
    }
    state.counters["whole_process_ms"] =
        benchmark::Counter(exitSeconds * 1e3, benchmark::Counter::kAvgIterations);
    state.counters["cpu_ms"] =
        benchmark::Counter(cpuSeconds * 1e3, benchmark::Counter::kAvgIterations);
}

}  // namespace

int main(int argc, char** argv) {
    initializeBenchmarks(argc, argv);
    const int runs = quickMode() ? 1 : 15;
    for (const char* name : {"first_reply/ours", "first_reply/by_hand"}) {
        const std::string program = siblingProgram(name == std::string("first_reply/ours")
                                                       ? "ostrelink_bench_first_reply_ours"
                                                       : "ostrelink_bench_first_reply_by_hand");
        benchmark::RegisterBenchmark(name, firstReply, program)
            ->UseManualTime()
            ->Iterations(1)
            ->Repetitions(runs)
            ->Unit(benchmark::kMillisecond);
    }
    Summary summary;
    benchmark::RunSpecifiedBenchmarks(&summary);
    const auto ours = summary.nanoseconds("first_reply/ours");
    const auto byHand = summary.nanoseconds("first_reply/by_hand");
    const auto ratio = divide(ours, byHand);
    const auto milliseconds = [&summary](const char* name, const char* counter) {
        const auto value = summary.counter(name, counter);
        return value ? std::optional<double>(*value * 1e6) : std::nullopt;
    };
    const auto oursCpu = milliseconds("first_reply/ours", "cpu_ms");
    const auto byHandCpu = milliseconds("first_reply/by_hand", "cpu_ms");
    tableRow("First reply of a fresh process (spawn → first Java reply, median of " +
                 std::to_string(runs) + ")",
             formatNanoseconds(ours) + " (to exit " +
                 formatNanoseconds(milliseconds("first_reply/ours", "whole_process_ms")) +
                 ", CPU " + formatNanoseconds(oursCpu) + ")",
             formatNanoseconds(byHand) + " (to exit " +
                 formatNanoseconds(milliseconds("first_reply/by_hand", "whole_process_ms")) +
                 ", CPU " + formatNanoseconds(byHandCpu) + "; host creating the JVM by hand)",
             formatRatio(ratio) + " (CPU " + formatRatio(divide(oursCpu, byHandCpu)) + ")", "≤ 1.1",
             verdict(ratio, ratio && *ratio <= 1.1));
    for (const char* name : {"first_reply/ours", "first_reply/by_hand"}) {
        const std::string failure = summary.error(name);
        if (!failure.empty()) {
            std::cerr << name << " failed: " << failure << std::endl;
        }
    }
    return ours && byHand ? 0 : 1;
}
