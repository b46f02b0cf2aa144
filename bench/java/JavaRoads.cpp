// The inbound roads to Java, each beside the same JNI road written by hand, in one process with
// one JVM: the library starts the JVM, and the hand-written road finds it and calls the same
// static method. The benchmarks run on a thread of their own, which the JVM has never seen; a
// benchmark that wants an attached thread attaches it for its own length.
#include <benchmark/benchmark.h>

#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/Messages.h"
#include "support/HandRoad.h"
#include "support/StagedRuntime.h"
#include "support/Summary.h"

using Ostrelink::Native::Interfaces::IReceiver;

namespace {

struct Roads {
    IReceiver* receiver = nullptr;
    JavaVM* jvm = nullptr;
    std::unique_ptr<HandRoad> hand;
};

Roads roads;

constexpr int echoSizes[] = {32, 1024, 64 * 1024};
constexpr int throughputThreads[] = {1, 2, 4, 8};

std::string sizeName(int size) {
    return size >= 1024 ? std::to_string(size / 1024) + " KiB" : std::to_string(size) + " B";
}

// Runs a benchmark's body; a failure of a road ends that benchmark with its text.
template <typename Body>
void guarded(benchmark::State& state, Body&& body) {
    try {
        body();
    } catch (const std::exception& failure) {
        state.SkipWithError(failure.what());
    }
}

void healthCheck(benchmark::State& state) {
    guarded(state, [&] {
        Bytes message = healthCheckMessage();
        Bytes reply(64);
        for (auto _ : state) {
            benchmark::DoNotOptimize(roundTrip(*roads.receiver, message, reply));
        }
    });
}

void echoOurs(benchmark::State& state, int size) {
    guarded(state, [&] {
        const ScopedAttach attach(roads.jvm);
        Bytes message = echoMessage(size);
        Bytes reply(message.size());
        for (auto _ : state) {
            benchmark::DoNotOptimize(roundTrip(*roads.receiver, message, reply));
        }
    });
}

void echoByHand(benchmark::State& state, int size) {
    guarded(state, [&] {
        const ScopedAttach attach(roads.jvm);
        const Bytes message = echoMessage(size);
        Bytes reply(message.size());
        for (auto _ : state) {
            benchmark::DoNotOptimize(
                roads.hand->call(attach.env(), message.data(), size, reply.data(), size));
        }
    });
}

void requireNeverSeen() {
    if (isAttached(roads.jvm)) {
        throw std::runtime_error("the benchmark thread is attached to the JVM");
    }
}

void neverSeenOurs(benchmark::State& state) {
    guarded(state, [&] {
        requireNeverSeen();
        Bytes message = echoMessage(32);
        Bytes reply(message.size());
        for (auto _ : state) {
            benchmark::DoNotOptimize(roundTrip(*roads.receiver, message, reply));
        }
    });
}

void neverSeenByHand(benchmark::State& state) {
    guarded(state, [&] {
        requireNeverSeen();
        const Bytes message = echoMessage(32);
        Bytes reply(message.size());
        for (auto _ : state) {
            const ScopedAttach attach(roads.jvm);
            benchmark::DoNotOptimize(
                roads.hand->call(attach.env(), message.data(), 32, reply.data(), 32));
        }
    });
}

void throughputOurs(benchmark::State& state) {
    guarded(state, [&] {
        const ScopedAttach attach(roads.jvm);
        Bytes message = echoMessage(32);
        Bytes reply(message.size());
        for (auto _ : state) {
            benchmark::DoNotOptimize(roundTrip(*roads.receiver, message, reply));
        }
        state.SetItemsProcessed(state.iterations());
    });
}

void throughputByHand(benchmark::State& state) {
    guarded(state, [&] {
        const ScopedAttach attach(roads.jvm);
        const Bytes message = echoMessage(32);
        Bytes reply(message.size());
        for (auto _ : state) {
            benchmark::DoNotOptimize(
                roads.hand->call(attach.env(), message.data(), 32, reply.data(), 32));
        }
        state.SetItemsProcessed(state.iterations());
    });
}

void registerBenchmarks() {
    benchmark::RegisterBenchmark("health_check/ours", healthCheck);
    for (const int size : echoSizes) {
        const std::string suffix = "/" + std::to_string(size);
        benchmark::RegisterBenchmark(("java_echo/ours" + suffix).c_str(), echoOurs, size);
        benchmark::RegisterBenchmark(("java_echo/by_hand" + suffix).c_str(), echoByHand, size);
    }
    benchmark::RegisterBenchmark("never_seen_thread/ours", neverSeenOurs)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("never_seen_thread/by_hand", neverSeenByHand)
        ->Unit(benchmark::kMicrosecond);
    for (const char* name : {"throughput/ours", "throughput/by_hand"}) {
        auto* throughput = benchmark::RegisterBenchmark(
            name, name == std::string("throughput/ours") ? throughputOurs : throughputByHand);
        for (const int threads : throughputThreads) {
            throughput->Threads(threads);
        }
        throughput->UseRealTime();
    }
}

void printTable(const Summary& summary) {
    const auto health = summary.nanoseconds("health_check/ours");
    tableRow("Health check", formatNanoseconds(health), "none (absolute)", "–", "report",
             health ? "reported" : "not measured");
    for (const int size : echoSizes) {
        const std::string suffix = "/" + std::to_string(size);
        const auto ours = summary.nanoseconds("java_echo/ours" + suffix);
        const auto byHand = summary.nanoseconds("java_echo/by_hand" + suffix);
        const auto ratio = divide(ours, byHand);
        const bool hasGoal = size == 32;
        tableRow("Java echo " + sizeName(size) + ", attached thread", formatNanoseconds(ours),
                 formatNanoseconds(byHand) + " (JNI road by hand)", formatRatio(ratio),
                 hasGoal ? "≤ 1.3" : "report",
                 hasGoal ? verdict(ratio, ratio && *ratio <= 1.3)
                         : (ratio ? "reported" : "not measured"));
    }
    {
        const auto ours = summary.nanoseconds("never_seen_thread/ours");
        const auto byHand = summary.nanoseconds("never_seen_thread/by_hand");
        const auto ratio = divide(ours, byHand);
        tableRow("Java echo 32 B from a never-seen thread", formatNanoseconds(ours),
                 formatNanoseconds(byHand) + " (attach, road, detach by hand)", formatRatio(ratio),
                 "≤ 1.2", verdict(ratio, ratio && *ratio <= 1.2));
    }
    const auto oneThread = summary.counter("throughput/ours", "items_per_second", 1);
    const auto oneThreadByHand = summary.counter("throughput/by_hand", "items_per_second", 1);
    for (const int threads : throughputThreads) {
        const auto ours = summary.counter("throughput/ours", "items_per_second", threads);
        const auto byHand = summary.counter("throughput/by_hand", "items_per_second", threads);
        const auto scaling = divide(ours, oneThread);
        const auto byHandScaling = divide(byHand, oneThreadByHand);
        const bool hasGoal = threads == 2;
        tableRow(
            "Throughput, " + std::to_string(threads) + " host thread" + (threads > 1 ? "s" : ""),
            formatRate(ours),
            formatRate(oneThread) + " (ours, 1 thread); by hand " + formatRate(byHand) + ", " +
                formatRatio(byHandScaling) + "×",
            formatRatio(scaling) + "×", hasGoal ? "≥ 1.7× 1 thread" : "report",
            hasGoal ? verdict(scaling, scaling && *scaling >= 1.7)
                    : (scaling ? "reported" : "not measured"));
    }
    for (const char* name :
         {"health_check/ours", "java_echo/ours/32", "never_seen_thread/ours", "throughput/ours"}) {
        const std::string failure = summary.error(name);
        if (!failure.empty()) {
            std::cerr << name << " failed: " << failure << std::endl;
        }
    }
}

// Starts the JVM through the library on this thread, which stays attached for good, and checks
// that both roads give the echo.
void setUp() {
    roads.receiver = calledReceiver();
    Bytes message = echoMessage(32);
    Bytes reply(message.size());
    if (roundTrip(*roads.receiver, message, reply) != 32 || reply != message) {
        throw std::runtime_error("the library's Java road gave no echo");
    }
    roads.jvm = runningJvm();
    const ScopedAttach attach(roads.jvm);
    roads.hand = std::make_unique<HandRoad>(attach.env());
    std::fill(reply.begin(), reply.end(), 0);
    if (roads.hand->call(attach.env(), message.data(), 32, reply.data(), 32) != 32 ||
        reply != message) {
        throw std::runtime_error("the hand-written road gave no echo");
    }
}

}  // namespace

int main(int argc, char** argv) {
    initializeBenchmarks(argc, argv);
    try {
        setUp();
    } catch (const std::exception& failure) {
        std::cerr << "Java roads: cannot set up: " << failure.what() << std::endl;
        return 1;
    }
    registerBenchmarks();
    Summary summary;
    std::thread runner([&summary] { benchmark::RunSpecifiedBenchmarks(&summary); });
    runner.join();
    printTable(summary);
    return 0;
}
