// Child process of LeakTest: runs every kind of command, succeeding and failing, many times over
// on the main thread (which stays attached to the JVM, so a leaked JNI local reference piles up
// there) and on short-lived threads. Prints what went wrong and exits 1 on a wrong outcome or,
// without a sanitizer, when the heap grows over the second half of the rounds. In sanitizer
// builds LeakSanitizer checks at exit instead.
//
//   hardening_leak_probe [rounds]   (default 4000)

#include <arpa/inet.h>
#include <dlfcn.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <ostrelink/RuntimeFactories.h>

#include "common/HostLibrary.h"
#include "common/Messages.h"

#if defined(__SANITIZE_ADDRESS__)
#define LEAK_PROBE_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LEAK_PROBE_SANITIZED 1
#endif
#endif
#ifndef LEAK_PROBE_SANITIZED
#define LEAK_PROBE_SANITIZED 0
#endif

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::CreateTransmitterFn;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;

namespace {

int wrong = 0;

void expect(bool condition, const std::string& what) {
    if (!condition) {
        ++wrong;
        if (wrong <= 20) {
            std::cout << "leak probe: wrong outcome: " << what << std::endl;
        }
    }
}

bool failsWith(const std::function<void()>& call, const std::string& text) {
    try {
        call();
    } catch (const std::exception& error) {
        return std::string(error.what()).find(text) != std::string::npos;
    }
    return false;
}

template <typename Endpoint>
Bytes sendAndRead(Endpoint* endpoint, Bytes message) {
    const int length = endpoint->SendCommand(message.data(), static_cast<int>(message.size()));
    Bytes reply(static_cast<std::size_t>(length), message[0]);
    endpoint->ReadResponse(reply.data(), length);
    return reply;
}

unsigned short closedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), size);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(fd);
    return ntohs(address.sin_port);
}

struct Probe {
    IReceiver* receiver;
    ITransmitter* transmitter;
    std::string jar;
    std::string missingJar;
    unsigned short refusingPort;

    // Every kind of command once.
    void round() const {
        const Bytes echo = makeMessage(2, 0, "echo through Java");
        expect(sendAndRead(receiver, echo) == echo, "java echo");
        expect(sendAndRead(receiver, makeMessage(2, 11, "12")) == acknowledgeBytes(), "heartbeat");
        // A reply of type ExceptionReply goes through the receiver's exception telemetry.
        const Bytes exceptionReply = makeMessage(2, 10, "exception reply");
        expect(sendAndRead(receiver, exceptionReply) == exceptionReply, "exception reply");
        expect(sendAndRead(receiver, healthCheckMessage()) == acknowledgeBytes(), "health check");
        expect(sendAndRead(receiver, makeMessage(2, 1, jar)) == acknowledgeBytes(), "load library");
        expect(failsWith([&] { sendAndRead(receiver, makeMessage(2, 1, missingJar)); }, "004"),
               "missing jar");
        Bytes buffer(17, 0);
        expect(failsWith([&] { receiver->ReadResponse(buffer.data(), 17); }, "041"),
               "read with nothing stored");
        expect(failsWith([&] { receiver->SendCommand(buffer.data(), 5); }, "042"), "short message");

        const Bytes toCpp = makeMessage(8, 0, "echo in memory");
        expect(sendAndRead(transmitter, toCpp) == toCpp, "in-memory echo");
        expect(failsWith([&] { sendAndRead(transmitter, makeMessage(5, 0, "missing")); },
                         "Cannot load"),
               "missing runtime");
        Bytes unknownType = makeMessage(8, 0, "unknown type");
        unknownType[2] = 3;
        expect(failsWith([&] { sendAndRead(transmitter, unknownType); }, "023"),
               "unknown connection type");
        expect(failsWith([&] { transmitter->SendCommand(buffer.data(), 10); }, "less than 11"),
               "short outbound message");
        Bytes refused = makeMessage(2, 0, "refused");
        setRoute(refused, 1, {127, 0, 0, 1}, refusingPort);
        expect(failsWith([&] { sendAndRead(transmitter, refused); }, "cannot connect"),
               "connection refused");
    }
};

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 4000;
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

    const std::filesystem::path directory =
        std::filesystem::temp_directory_path() / ("leak-probe-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    std::ofstream(directory / "probe.jar") << "PK";
    const Probe probe{receiver, transmitter, (directory / "probe.jar").string(),
                      (directory / "missing.jar").string(), closedPort()};

    // Heap in use at every tenth of the run. The JVM's own use settles only after some thousands
    // of commands (the JIT compiles the roads), so growth is judged over the second half alone.
    std::vector<std::size_t> heap;
    for (int round = 0; round < rounds; ++round) {
        probe.round();
        // A thread the JVM has never seen: attached for its commands, detached at its end.
        if (round % 10 == 0) {
            std::thread([&probe] { probe.round(); }).join();
        }
        if ((round + 1) % std::max(1, rounds / 10) == 0) {
            heap.push_back(mallinfo2().uordblks);
        }
    }
    std::filesystem::remove_all(directory);

    std::cout << "leak probe: " << rounds << " rounds, " << wrong << " wrong outcomes";
    bool grew = false;
    if (!LEAK_PROBE_SANITIZED && heap.size() == 10) {
        // A leak on any road grows the heap in every tenth: one 32-byte block per round is
        // 12 KiB a tenth. The JVM's own use grows in steps now and then, and stays flat between.
        const auto growthOfTenth = [&heap](std::size_t tenth) {
            return static_cast<long>(heap[tenth]) - static_cast<long>(heap[tenth - 1]);
        };
        grew = true;
        for (std::size_t tenth = 5; tenth < 10; ++tenth) {
            grew = grew && growthOfTenth(tenth) > 8 * 1024;
        }
        std::cout << ", heap in use at each tenth:";
        for (const std::size_t bytes : heap) {
            std::cout << " " << bytes;
        }
        std::cout << (grew ? " (grows in every tenth of the second half)" : " (steady)");
    }
    std::cout << std::endl;
    return wrong == 0 && !grew ? 0 : 1;
}
