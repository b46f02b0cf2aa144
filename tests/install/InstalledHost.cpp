// A host built apart from the project, through the installed CMake package only, that drives
// the installed library (OSTRELINK_LIBRARY, from the package) the way a sibling runtime library
// does: dlopen by full path, factories by name, messages built by hand. Every thread sends, reads
// on the same thread and checks that the reply is its own.
//   InstalledHost health|echo|memory|tcp|tls THREADS ROUNDS [PORT]
// health and echo go through the receiver to Java, memory through the transmitter to the Cpp
// runtime (8) in memory, tcp and tls through the transmitter to an ostrelink-server on
// 127.0.0.1:PORT.
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <ostrelink/CommandHeader.h>
#include <ostrelink/ConnectionType.h>
#include <ostrelink/IReceiver.h>
#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeFactories.h>

using namespace Ostrelink::Native;
using Header = Definitions::CommandHeader;
using Bytes = std::vector<unsigned char>;

int main(int argc, char** argv) {
    const std::string mode = argv[1];
    const int threads = std::atoi(argv[2]);
    const int rounds = std::atoi(argv[3]);
    const int port = argc > 4 ? std::atoi(argv[4]) : 0;
    void* library = dlopen(OSTRELINK_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    const auto createReceiver = reinterpret_cast<Interfaces::CreateReceiverFn>(
        library != nullptr ? dlsym(library, "CreateReceiver") : nullptr);
    const auto createTransmitter = reinterpret_cast<Interfaces::CreateTransmitterFn>(
        library != nullptr ? dlsym(library, "CreateTransmitter") : nullptr);
    if (createReceiver == nullptr || createTransmitter == nullptr) {
        std::fprintf(stderr, "cannot use %s: %s\n", OSTRELINK_LIBRARY, dlerror());
        return 1;
    }
    const bool outbound = mode != "health" && mode != "echo";
    // A command whose reply is the request unchanged (the Java receiver echoes when byte 11 is
    // 0, and so does the Cpp runtime for a text it doesn't know), or a health check.
    const Bytes acknowledge(std::begin(Definitions::acknowledgeReply),
                            std::end(Definitions::acknowledgeReply));
    const auto run = [&](auto* endpoint, int thread) {
        for (int round = 0; round < rounds; ++round) {
            const std::string text = mode == "health" ? "health_check"
                                                      : "thread " + std::to_string(thread) +
                                                            " round " + std::to_string(round);
            Bytes request(Header::payloadTextOffset, 0);
            request[Header::targetRuntime] = mode == "memory" ? 8 : 2;
            request[Header::callingRuntime] = 8;
            request[Header::commandType] = mode == "health" ? 0 : 5;
            request.insert(request.end(), text.begin(), text.end());
            if (mode == "tcp" || mode == "tls") {
                request[Header::connectionType] =
                    static_cast<unsigned char>(mode == "tcp" ? Definitions::ConnectionType::Tcp
                                                             : Definitions::ConnectionType::Tls);
                const unsigned char address[] = {127, 0, 0, 1};
                std::copy(address, address + 4, &request[Header::hostAddress]);
                request[Header::hostPort] = static_cast<unsigned char>(port);
                request[Header::hostPort + 1] = static_cast<unsigned char>(port >> 8);
            }
            const Bytes& expected = mode == "health" ? acknowledge : request;
            const int length =
                endpoint->SendCommand(request.data(), static_cast<int>(request.size()));
            // The in-memory channel routes the read by the runtime in byte 0.
            Bytes reply(static_cast<std::size_t>(std::max(length, 0)), request[0]);
            endpoint->ReadResponse(reply.data(), length);
            if (reply != expected) {
                std::fprintf(stderr, "thread %d round %d: wrong reply (%d bytes)\n", thread, round,
                             length);
                std::_Exit(1);
            }
        }
    };
    // A wrong reply ends the process at once; an exception ends it too, and the runtime prints its
    // text.
    Interfaces::IReceiver* receiver = nullptr;
    Interfaces::ITransmitter* transmitter = nullptr;
    if (outbound) {
        transmitter = createTransmitter(Definitions::RuntimeOperationMode::Calling);
    } else {
        receiver = createReceiver(Definitions::RuntimeOperationMode::Called);
        receiver->Initialize(8, 2, 0);
    }
    std::vector<std::thread> workers;
    for (int thread = 0; thread < threads; ++thread) {
        workers.emplace_back(
            [&, thread] { outbound ? run(transmitter, thread) : run(receiver, thread); });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    std::printf("%s: %d threads x %d rounds passed\n", mode.c_str(), threads, rounds);
}
