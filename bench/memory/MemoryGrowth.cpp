// Resident memory of a host: before the library is loaded, with the library loaded and the JVM
// up, and along a long run of Java echo commands, so that growth after warm-up shows. A second
// run sends from a thread the JVM has never seen, which attaches and detaches on every command.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "support/HandRoad.h"
#include "support/StagedRuntime.h"
#include "support/Summary.h"

using Ostrelink::Native::Interfaces::IReceiver;

namespace {

double residentMiB() {
    long pages = 0;
    long resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        std::fclose(statm);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) /
           (1024.0 * 1024.0);
}

std::string mib(double value) {
    std::ostringstream text;
    text.setf(std::ios::fixed);
    text.precision(1);
    text << value << " MiB";
    return text.str();
}

// Sends count commands and prints the resident size every step commands; returns it at the end.
double sendAndWatch(IReceiver& receiver, long count, long step, const char* label) {
    Bytes message = echoMessage(32);
    Bytes reply(message.size());
    for (long sent = 1; sent <= count; ++sent) {
        roundTrip(receiver, message, reply);
        if (sent % step == 0) {
            std::cout << label << " " << sent << " commands: " << mib(residentMiB()) << std::endl;
        }
    }
    return residentMiB();
}

}  // namespace

int main() {
    const bool quick = quickMode();
    const long warmUp = quick ? 20000 : 1000000;
    const long measured = quick ? 20000 : 1000000;
    const long neverSeen = quick ? 200 : 20000;
    const double before = residentMiB();
    try {
        IReceiver* receiver = calledReceiver();
        Bytes message = echoMessage(32);
        Bytes reply(message.size());
        roundTrip(*receiver, message, reply);
        const double jvmUp = residentMiB();
        std::cout << "before the library: " << mib(before)
                  << ", library loaded and JVM up: " << mib(jvmUp) << std::endl;
        const double warm = sendAndWatch(*receiver, warmUp, warmUp / 5, "warm-up");
        const double after = sendAndWatch(*receiver, measured, measured / 5, "measured");
        const double growth = after - warm;
        tableRow(
            "Memory: RSS, library loaded and JVM up; after warm-up (" + std::to_string(warmUp) +
                " commands); after " + std::to_string(measured) + " more",
            mib(jvmUp) + "; " + mib(warm) + "; " + mib(after) + " (growth " + mib(growth) + ")",
            mib(before) + " (before the library is loaded)", "–",
            "no growth after warm-up (≤ 1 MiB)", verdict(growth, growth <= 1.0));

        // Commands from a thread the JVM has never seen: one attach and detach each.
        double threadWarm = 0;
        double threadAfter = 0;
        std::thread sender([&] {
            threadWarm = sendAndWatch(*receiver, neverSeen, neverSeen, "never-seen warm-up");
            threadAfter = sendAndWatch(*receiver, neverSeen, neverSeen / 4, "never-seen");
        });
        sender.join();
        const double threadGrowth = threadAfter - threadWarm;
        tableRow("Memory: RSS over " + std::to_string(neverSeen) +
                     " commands from a never-seen thread (attach and detach each), after as many "
                     "to warm up",
                 mib(threadWarm) + " → " + mib(threadAfter) + " (growth " + mib(threadGrowth) + ")",
                 mib(before) + " (before the library is loaded)", "–",
                 "no growth after warm-up (≤ 1 MiB)", verdict(threadGrowth, threadGrowth <= 1.0));
    } catch (const std::exception& failure) {
        std::cerr << "Memory: " << failure.what() << std::endl;
        return 1;
    }
    return 0;
}
