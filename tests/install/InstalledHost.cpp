// A host built apart from the project, through the installed CMake package only, that drives
// the installed library (OSTRELINK_LIBRARY, from the package) the way a sibling runtime library
// does: dlopen by full path, factories by name, messages built by hand.
//   InstalledHost health|echo THREADS ROUNDS          through the receiver
//   InstalledHost memory THREADS ROUNDS               through the transmitter, in memory to the
//                                                     Cpp runtime (8)
//   InstalledHost tcp|tls THREADS ROUNDS PORT         through the transmitter, to an
//                                                     ostrelink-server on 127.0.0.1
#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include <ostrelink/CommandHeader.h>
#include <ostrelink/ConnectionType.h>
#include <ostrelink/IReceiver.h>
#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeFactories.h>

using namespace Ostrelink::Native;
using Bytes = std::vector<unsigned char>;

namespace {

Bytes message(unsigned char commandType, const std::string& payloadText,
              unsigned char targetRuntime = 2) {
    Bytes bytes(Definitions::CommandHeader::payloadTextOffset, 0);
    bytes[Definitions::CommandHeader::targetRuntime] = targetRuntime;
    bytes[Definitions::CommandHeader::callingRuntime] = 8;
    bytes[Definitions::CommandHeader::commandType] = commandType;
    bytes.insert(bytes.end(), payloadText.begin(), payloadText.end());
    return bytes;
}

// A command whose reply is the request unchanged: the Java receiver echoes when byte 11 is 0, and
// so does the Cpp runtime for any text it doesn't know.
Bytes echoRequest(unsigned char targetRuntime, int thread, int round) {
    return message(5, "thread " + std::to_string(thread) + " round " + std::to_string(round),
                   targetRuntime);
}

void route(Bytes& request, Definitions::ConnectionType type, unsigned short port) {
    request[Definitions::CommandHeader::connectionType] = static_cast<unsigned char>(type);
    const unsigned char loopback[] = {127, 0, 0, 1};
    std::memcpy(&request[Definitions::CommandHeader::hostAddress], loopback, sizeof(loopback));
    request[Definitions::CommandHeader::hostPort] = static_cast<unsigned char>(port & 0xFF);
    request[Definitions::CommandHeader::hostPort + 1] = static_cast<unsigned char>(port >> 8);
}

// One thread's work: send, read on the same thread, compare with what this thread expects.
template <typename Endpoint>
bool run(Endpoint* endpoint, const std::string& mode, int thread, int rounds, unsigned short port) {
    for (int round = 0; round < rounds; ++round) {
        Bytes request;
        if (mode == "health") {
            request = message(0, "health_check");
        } else if (mode == "memory") {
            request = echoRequest(8, thread, round);
        } else {
            request = echoRequest(2, thread, round);
            if (mode != "echo") {
                route(request,
                      mode == "tcp" ? Definitions::ConnectionType::Tcp
                                    : Definitions::ConnectionType::Tls,
                      port);
            }
        }
        Bytes expected = request;
        if (mode == "health") {
            expected.assign(std::begin(Definitions::acknowledgeReply),
                            std::end(Definitions::acknowledgeReply));
        }
        const int length = endpoint->SendCommand(request.data(), static_cast<int>(request.size()));
        Bytes reply(static_cast<std::size_t>(length > 0 ? length : 0), 0);
        if (!reply.empty()) {
            // The in-memory channel routes the read by the runtime in byte 0.
            reply[0] = request[Definitions::CommandHeader::targetRuntime];
        }
        endpoint->ReadResponse(reply.data(), length);
        if (reply != expected) {
            std::fprintf(stderr, "thread %d round %d: wrong reply (%d bytes)\n", thread, round,
                         length);
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr, "usage: %s health|echo|memory|tcp|tls THREADS ROUNDS [PORT]\n",
                     argv[0]);
        return 2;
    }
    void* library = dlopen(OSTRELINK_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "cannot open %s: %s\n", OSTRELINK_LIBRARY, dlerror());
        return 1;
    }
    auto createReceiver =
        reinterpret_cast<Interfaces::CreateReceiverFn>(dlsym(library, "CreateReceiver"));
    auto createTransmitter =
        reinterpret_cast<Interfaces::CreateTransmitterFn>(dlsym(library, "CreateTransmitter"));
    if (createReceiver == nullptr || createTransmitter == nullptr) {
        std::fprintf(stderr, "CreateReceiver or CreateTransmitter is not exported\n");
        return 1;
    }
    const std::string mode = argv[1];
    const int threads = std::atoi(argv[2]);
    const int rounds = std::atoi(argv[3]);
    const auto port = static_cast<unsigned short>(argc == 5 ? std::atoi(argv[4]) : 0);
    const bool outbound = mode == "memory" || mode == "tcp" || mode == "tls";
    try {
        Interfaces::IReceiver* receiver = nullptr;
        Interfaces::ITransmitter* transmitter = nullptr;
        if (outbound) {
            transmitter = createTransmitter(Definitions::RuntimeOperationMode::Calling);
        } else {
            receiver = createReceiver(Definitions::RuntimeOperationMode::Called);
            receiver->Initialize(8, 2, 0);
        }
        std::atomic<int> failed{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                try {
                    const bool passed = outbound ? run(transmitter, mode, t, rounds, port)
                                                 : run(receiver, mode, t, rounds, port);
                    if (!passed) {
                        ++failed;
                    }
                } catch (const std::exception& exception) {
                    std::fprintf(stderr, "thread %d: %s\n", t, exception.what());
                    ++failed;
                }
            });
        }
        for (auto& worker : workers) {
            worker.join();
        }
        std::printf("%s: %d threads x %d rounds, %d threads failed\n", mode.c_str(), threads,
                    rounds, failed.load());
        return failed.load() == 0 ? 0 : 1;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "%s\n", exception.what());
        return 1;
    }
}
