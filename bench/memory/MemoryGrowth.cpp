// Resident memory of a host: before the library is loaded, with the library loaded and the JVM
// up, and across a long run of Java echo commands after a warm-up, beside the same run on the
// hand-written JNI road in the same process. A second run sends from threads the JVM has never
// seen, which attach and detach on every command. Besides the resident size it watches the bytes
// in use on the native heap (mallinfo2), where a leak of the library would show first. A second
// process with threads kept attached runs many short-lived threads of one command each, which the
// library attaches and must detach as they end.
//
// The Java heap is fixed (JAVA_TOOL_OPTIONS, unless the caller sets it), so that the warm-up
// touches all of it: with the JVM's default heap of a quarter of the machine's memory, resident
// size keeps growing for millions of commands while the collector spreads the garbage of the
// request arrays over ever more of the heap, which says nothing about the library.
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "support/HandRoad.h"
#include "support/StagedRuntime.h"
#include "support/Summary.h"

using Ostrelink::Native::Interfaces::IReceiver;

namespace {

struct Footprint {
    double residentMiB = 0;
    double nativeHeapMiB = 0;
};

Footprint footprint() {
    Footprint now;
    long pages = 0;
    long resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        std::fclose(statm);
    }
    now.residentMiB = static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) /
                      (1024.0 * 1024.0);
    const struct mallinfo2 heap = mallinfo2();
    now.nativeHeapMiB = static_cast<double>(heap.uordblks + heap.hblkhd) / (1024.0 * 1024.0);
    return now;
}

std::string mib(double value, bool sign = false) {
    std::ostringstream text;
    text.setf(std::ios::fixed);
    text.precision(1);
    if (sign && value >= 0) {
        text << '+';
    }
    text << value << " MiB";
    return text.str();
}

std::string describe(const Footprint& value) {
    return mib(value.residentMiB) + " (native heap " + mib(value.nativeHeapMiB) + ")";
}

// Runs count commands, printing the footprint every step; returns the footprint at the end.
Footprint run(long count, const char* label, const std::function<void()>& command) {
    const long step = count / 5 > 0 ? count / 5 : 1;
    for (long sent = 1; sent <= count; ++sent) {
        command();
        if (sent % step == 0) {
            std::cout << label << ", " << sent << " commands: " << describe(footprint())
                      << std::endl;
        }
    }
    return footprint();
}

struct Growth {
    double resident = 0;
    double nativeHeap = 0;
};

Growth growth(const Footprint& from, const Footprint& to) {
    return {to.residentMiB - from.residentMiB, to.nativeHeapMiB - from.nativeHeapMiB};
}

std::string describe(const Growth& value) {
    return mib(value.resident, true) + " RSS, " + mib(value.nativeHeap, true) + " native heap";
}

constexpr double allowedGrowthMiB = 1.0;

bool noGrowth(const Growth& value) {
    return value.resident <= allowedGrowthMiB && value.nativeHeap <= allowedGrowthMiB;
}

// Each command on a thread of its own, which ends after it; the baseline attaches, calls and
// detaches by hand.
int keptThreads(long threads) {
    try {
        IReceiver* receiver = calledReceiver();
        const Bytes message = echoMessage(32);
        Bytes first = message;
        Bytes firstReply(first.size());
        roundTrip(*receiver, first, firstReply);  // starts the JVM on this thread
        JavaVM* jvm = runningJvm();
        const ScopedAttach attach(jvm);
        const HandRoad hand(attach.env());
        const auto onNewThread = [](const std::function<void()>& command) {
            return [command] {
                std::exception_ptr failure;
                std::thread([&] {
                    try {
                        command();
                    } catch (...) {
                        failure = std::current_exception();
                    }
                }).join();
                if (failure) {
                    std::rethrow_exception(failure);
                }
            };
        };
        const auto ours = onNewThread([&] {
            Bytes own = message;
            Bytes reply(own.size());
            roundTrip(*receiver, own, reply);
        });
        const auto byHand = onNewThread([&] {
            const ScopedAttach attachOnce(jvm);
            Bytes reply(message.size());
            hand.call(attachOnce.env(), message.data(), static_cast<int>(message.size()),
                      reply.data(), static_cast<int>(reply.size()));
        });
        run(threads, "warm-up, kept threads, library", ours);
        const Footprint start = footprint();
        const Growth oursGrowth =
            growth(start, run(threads, "measured, kept threads, library", ours));
        run(threads, "warm-up, threads by hand", byHand);
        const Footprint handStart = footprint();
        const Growth handGrowth =
            growth(handStart, run(threads, "measured, threads by hand", byHand));
        tableRow("Memory: growth over " + std::to_string(threads) +
                     " short-lived threads kept attached (one command each, "
                     "OSTRELINK_KEEP_THREADS_ATTACHED=true) after as many to warm up",
                 describe(oursGrowth),
                 "hand-written attach, road, detach on as many threads " + describe(handGrowth),
                 "–", "no growth after warm-up (≤ 1 MiB)", noGrowth(oursGrowth) ? "met" : "missed");
    } catch (const std::exception& failure) {
        std::cerr << "Memory, kept threads: " << failure.what() << std::endl;
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    setenv("JAVA_TOOL_OPTIONS", "-Xms64m -Xmx64m", 0);
    const bool quick = quickMode();
    const long commands = quick ? 20000 : 1000000;
    const long neverSeen = quick ? 200 : 10000;
    if (keptMode()) {
        return keptThreads(neverSeen);
    }
    const Footprint before = footprint();
    try {
        IReceiver* receiver = calledReceiver();
        Bytes message = echoMessage(32);
        Bytes reply(message.size());
        const auto ours = [&] { roundTrip(*receiver, message, reply); };
        ours();
        const Footprint jvmUp = footprint();
        std::cout << "before the library: " << describe(before)
                  << "; library loaded and JVM up: " << describe(jvmUp) << std::endl;

        JavaVM* jvm = runningJvm();
        const ScopedAttach attach(jvm);
        const HandRoad hand(attach.env());
        const auto byHand = [&] {
            hand.call(attach.env(), message.data(), static_cast<int>(message.size()), reply.data(),
                      static_cast<int>(reply.size()));
        };

        run(commands, "warm-up, library", ours);
        const Footprint handStart = run(commands, "warm-up, by hand", byHand);
        const Growth handGrowth = growth(handStart, run(commands, "measured, by hand", byHand));
        const Footprint oursStart = footprint();
        const Growth oursGrowth = growth(oursStart, run(commands, "measured, library", ours));
        tableRow("Memory: host with the library loaded and the JVM up (JAVA_TOOL_OPTIONS=" +
                     std::string(std::getenv("JAVA_TOOL_OPTIONS")) + "); growth over " +
                     std::to_string(commands) + " Java echo commands after a warm-up",
                 describe(jvmUp) + "; after warm-up " + mib(oursStart.residentMiB) + "; " +
                     describe(oursGrowth),
                 mib(before.residentMiB) + " before the library is loaded; hand-written road " +
                     describe(handGrowth),
                 "–", "no growth after warm-up (≤ 1 MiB)", noGrowth(oursGrowth) ? "met" : "missed");

        // Each command from a thread the JVM has not seen: attach, command, detach; the same
        // by hand on the same thread afterwards.
        Growth threadGrowth;
        Growth threadHandGrowth;
        std::exception_ptr threadFailure;
        std::thread sender([&] {
            try {
                Bytes ownReply(message.size());
                const auto fromNewThread = [&] { roundTrip(*receiver, message, ownReply); };
                const auto byHandFromNewThread = [&] {
                    const ScopedAttach attachOnce(jvm);
                    hand.call(attachOnce.env(), message.data(), static_cast<int>(message.size()),
                              ownReply.data(), static_cast<int>(ownReply.size()));
                };
                run(neverSeen, "warm-up, never-seen thread, library", fromNewThread);
                const Footprint start = footprint();
                threadGrowth = growth(
                    start, run(neverSeen, "measured, never-seen thread, library", fromNewThread));
                const Footprint handStartOnThread = footprint();
                threadHandGrowth = growth(
                    handStartOnThread,
                    run(neverSeen, "measured, never-seen thread, by hand", byHandFromNewThread));
            } catch (...) {
                threadFailure = std::current_exception();
            }
        });
        sender.join();
        if (threadFailure) {
            std::rethrow_exception(threadFailure);
        }
        tableRow("Memory: growth over " + std::to_string(neverSeen) +
                     " commands from a never-seen thread (attach and detach each) after as many "
                     "to warm up",
                 describe(threadGrowth),
                 "hand-written attach, road, detach " + describe(threadHandGrowth), "–",
                 "no growth after warm-up (≤ 1 MiB)", noGrowth(threadGrowth) ? "met" : "missed");
    } catch (const std::exception& failure) {
        std::cerr << "Memory: " << failure.what() << std::endl;
        return 1;
    }
    return runKeptMode(argc, argv);
}
