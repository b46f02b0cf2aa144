// A host that starts, opens the library of the staged tree by full path, and sends one Java echo
// command: the library finds the JVM, starts it and calls the receiver. Writes the monotonic
// clock at the moment the reply is read on descriptor 3, for the program that started it.
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>

#include "support/StagedRuntime.h"

int main() {
    try {
        auto* receiver = calledReceiver();
        Bytes message = echoMessage(32);
        Bytes reply(message.size());
        if (roundTrip(*receiver, message, reply) != 32 || reply != message) {
            std::fputs("first reply (library): no echo\n", stderr);
            return 1;
        }
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "first reply (library): %s\n", failure.what());
        return 1;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::string report = std::to_string(now.tv_sec) + " " + std::to_string(now.tv_nsec);
    return write(3, report.data(), report.size()) == static_cast<ssize_t>(report.size()) ? 0 : 1;
}
