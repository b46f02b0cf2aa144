// The inbound roads to Java, each beside the same JNI road written by hand, in one process with
// one JVM: the library starts the JVM, and the hand-written road finds it and calls the same
// static method. The benchmarks run on a thread of their own, which the JVM has never seen; a
// benchmark that wants an attached thread attaches it for its own length. The kept-attached road
// needs OSTRELINK_KEEP_THREADS_ATTACHED, which the library reads once per process: the program
// runs that road in a second process of its own, beside the attached road again.
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

// A thread the library attached and keeps: the first command attaches it, outside the timing.
void keptOurs(benchmark::State& state) {
    guarded(state, [&] {
        Bytes message = echoMessage(32);
        Bytes reply(message.size());
        roundTrip(*roads.receiver, message, reply);
        if (!isAttached(roads.jvm)) {
            throw std::runtime_error("the library did not keep the thread attached");
        }
        for (auto _ : state) {
            benchmark::DoNotOptimize(roundTrip(*roads.receiver, message, reply));
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
    if (keptMode()) {
        benchmark::RegisterBenchmark("kept_thread/ours", keptOurs);
        benchmark::RegisterBenchmark("java_echo/ours/32", echoOurs, 32);
        return;
    }
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

void printKeptRow(const Summary& summary) {
    const auto kept = summary.nanoseconds("kept_thread/ours");
    const auto attached = summary.nanoseconds("java_echo/ours/32");
    const auto ratio = divide(kept, attached);
    tableRow("Java echo 32 B on a kept-attached thread, after its first command",
             formatNanoseconds(kept), formatNanoseconds(attached) + " (ours, attached thread)",
             formatRatio(ratio), "≤ 1.3", verdict(ratio, ratio && *ratio <= 1.3));
    const std::string failure = summary.error("kept_thread/ours");
    if (!failure.empty()) {
        std::cerr << "kept_thread/ours failed: " << failure << std::endl;
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
        const double goal = size == 32 ? 1.15 : size == 1024 ? 1.1 : 0;
        tableRow("Java echo " + sizeName(size) + ", attached thread", formatNanoseconds(ours),
                 formatNanoseconds(byHand) + " (JNI road by hand)", formatRatio(ratio),
                 goal > 0 ? "≤ " + formatRatio(goal) : "report",
                 goal > 0 ? verdict(ratio, ratio && *ratio <= goal)
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
        // Two threads against the hand-written road's own scaling in this run; more threads than
        // cores must at least not lose work.
        const auto ofByHand = divide(scaling, byHandScaling);
        std::string goal = "report";
        std::string met = scaling ? "reported" : "not measured";
        if (threads == 2) {
            goal = "≥ 0.9 × by hand's scaling";
            met = verdict(ofByHand, ofByHand && *ofByHand >= 0.9);
        } else if (threads > 2) {
            goal = "≥ 1.0× 1 thread";
            met = verdict(scaling, scaling && *scaling >= 1.0);
        }
        tableRow(
            "Throughput, " + std::to_string(threads) + " host thread" + (threads > 1 ? "s" : ""),
            formatRate(ours),
            formatRate(oneThread) + " (ours, 1 thread); by hand " + formatRate(byHand) + ", " +
                formatRatio(byHandScaling) + "×",
            formatRatio(scaling) + "× (" + formatRatio(ofByHand) + " of by hand's)", goal, met);
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
    if (keptMode()) {
        printKeptRow(summary);
        return 0;
    }
    printTable(summary);
    // The same flags: initializeBenchmarks leaves argv as it was.
    return runKeptMode(argc, argv);
}
