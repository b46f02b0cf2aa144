// The LeakCheck test: runs every kind of command, succeeding and failing, many times over on the
// main thread (which stays attached to the JVM, so a leaked JNI local reference piles up there)
// and on short-lived threads, under -Xcheck:jni (whose warnings fail the test). Exits 1 on a
// wrong outcome, or when glibc's heap grows over the second half of the rounds. (Under
// AddressSanitizer, which allocates outside that heap, LeakSanitizer checks at exit instead.)
//   hardening_leak_probe ROUNDS

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <thread>
#include <vector>

#include <ostrelink/RuntimeFactories.h>

#include "NetworkTestSupport.h"
#include "common/TemporaryDirectory.h"

using namespace Ostrelink::Native::Interfaces;
using Ostrelink::Native::Definitions::RuntimeOperationMode;

int main(int, char** argv) try {
    const int rounds = std::atoi(argv[1]);
    setenv("OSTRELINK_LOGGING_LEVEL", "off", 1);
    auto& library = HostLibrary::jvmRuntime();
    // Failures write no record: each record costs a 50 ms pause.
    library.get<int (*)(std::string)>(
        "_Z23SetWorkingDirectoryPathNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")(
        "/nonexistent/ostrelink-leak-probe");
    IReceiver* receiver =
        library.get<CreateReceiverFn>("CreateReceiver")(RuntimeOperationMode::Called);
    receiver->Initialize(8, 2, 0);
    ITransmitter* transmitter =
        library.get<CreateTransmitterFn>("CreateTransmitter")(RuntimeOperationMode::Called);
    const TemporaryDirectory directory;
    std::ofstream(directory.file("probe.jar")) << "PK";
    const unsigned short refusingPort = unusedPort();

    int wrong = 0;
    const auto expect = [&wrong](bool condition, const char* what) {
        if (!condition && ++wrong <= 20) {
            std::cout << "leak probe: wrong outcome: " << what << std::endl;
        }
    };
    const auto fails = [](const std::function<void()>& call, const std::string& text) {
        return failureOf(call).find(text) != std::string::npos;
    };
    const auto echoes = [](auto* endpoint, const Bytes& message) {
        return sendAndRead(endpoint, message, message[0]) == message;
    };
    // Every kind of command once.
    const auto round = [&] {
        const auto acknowledged = [receiver](const Bytes& message) {
            return sendAndRead(receiver, message, 2) == acknowledgeBytes();
        };
        expect(echoes(receiver, makeMessage(2, 0, "echo through Java")), "java echo");
        expect(acknowledged(makeMessage(2, 11, "12")), "heartbeat");
        // A reply of type ExceptionReply goes through the receiver's exception telemetry.
        expect(echoes(receiver, makeMessage(2, 10, "exception reply")), "exception reply");
        expect(acknowledged(healthCheckMessage()), "health check");
        expect(acknowledged(makeMessage(2, 1, directory.file("probe.jar"))), "load library");
        expect(fails([&] { sendAndRead(receiver, makeMessage(2, 1, directory.file("no.jar"))); },
                     "004"),
               "missing jar");
        Bytes buffer(17, 0);
        expect(fails([&] { receiver->ReadResponse(buffer.data(), 17); }, "041"), "nothing stored");
        expect(fails([&] { receiver->SendCommand(buffer.data(), 5); }, "042"), "short message");

        expect(echoes(transmitter, makeMessage(8, 0, "echo in memory")), "in-memory echo");
        expect(fails([&] { sendAndRead(transmitter, makeMessage(5, 0, "missing"), 5); },
                     "Cannot load"),
               "missing runtime");
        Bytes outbound = makeMessage(8, 0, "unknown type");
        outbound[2] = 3;
        expect(fails([&] { sendAndRead(transmitter, outbound, 8); }, "023"), "unknown type");
        expect(fails([&] { transmitter->SendCommand(buffer.data(), 10); }, "less than 11"),
               "short outbound message");
        setRoute(outbound, 1, {127, 0, 0, 1}, refusingPort);
        expect(fails([&] { sendAndRead(transmitter, outbound, 8); }, "cannot connect"),
               "connection refused");
    };

    // Heap in use at every tenth of the run. The JVM's own use settles only after some thousands
    // of commands (the JIT compiles the roads), so growth is judged over the second half alone:
    // a leak on any road grows it in every tenth (one 32-byte block per round is 12 KiB a
    // tenth), the JVM's own use only in steps now and then.
    std::vector<long> heap;
    bool grew = rounds >= 10;
    std::cout << "leak probe: heap in use at each tenth:";
    for (int index = 0; index < rounds; ++index) {
        round();
        // A thread the JVM has never seen: attached for its commands, detached at its end.
        if (index % 10 == 0) {
            std::thread(round).join();
        }
        if ((index + 1) % std::max(1, rounds / 10) == 0) {
            heap.push_back(static_cast<long>(mallinfo2().uordblks));
            std::cout << " " << heap.back();
            grew = grew && (heap.size() <= 5 || heap.back() - heap[heap.size() - 2] > 8 * 1024);
        }
    }
    std::cout << (grew ? " (grows in every tenth of the second half)" : "")
              << "\nleak probe: " << rounds << " rounds, " << wrong << " wrong outcomes"
              << std::endl;
    return wrong == 0 && !grew ? 0 : 1;
} catch (const std::exception& error) {
    // A command that throws where it should answer is a wrong outcome too.
    std::cout << "\nleak probe: " << error.what() << std::endl;
    return 1;
}
