// A host built apart from the project, against the installed headers only, that drives the
// installed library the way a sibling runtime library does: dlopen by full path, factories by
// name, messages built by hand. Usage: InstalledHost LIBRARY MODE THREADS ROUNDS
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
#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

using namespace Ostrelink::Native;
using Bytes = std::vector<unsigned char>;

namespace {

Bytes message(unsigned char commandType, const std::string& payloadText) {
    Bytes bytes(Definitions::CommandHeader::payloadTextOffset, 0);
    bytes[Definitions::CommandHeader::targetRuntime] = 2;
    bytes[Definitions::CommandHeader::callingRuntime] = 8;
    bytes[Definitions::CommandHeader::commandType] = commandType;
    bytes.insert(bytes.end(), payloadText.begin(), payloadText.end());
    return bytes;
}

// One thread's work: send, read on the same thread, compare with what this thread expects.
bool run(Interfaces::IReceiver* receiver, const std::string& mode, int thread, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        Bytes request;
        Bytes expected;
        if (mode == "health") {
            request = message(0, "health_check");
            expected.assign(std::begin(Definitions::acknowledgeReply),
                            std::end(Definitions::acknowledgeReply));
        } else {
            // Byte 11 0: echo; the Java side answers with the request unchanged.
            request =
                message(5, "thread " + std::to_string(thread) + " round " + std::to_string(round));
            expected = request;
        }
        const int length = receiver->SendCommand(request.data(), static_cast<int>(request.size()));
        Bytes reply(static_cast<std::size_t>(length > 0 ? length : 0), 0);
        receiver->ReadResponse(reply.data(), length);
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
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s LIBRARY health|echo THREADS ROUNDS\n", argv[0]);
        return 2;
    }
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "cannot open %s: %s\n", argv[1], dlerror());
        return 1;
    }
    auto createReceiver =
        reinterpret_cast<Interfaces::CreateReceiverFn>(dlsym(library, "CreateReceiver"));
    if (createReceiver == nullptr) {
        std::fprintf(stderr, "CreateReceiver is not exported\n");
        return 1;
    }
    const std::string mode = argv[2];
    const int threads = std::atoi(argv[3]);
    const int rounds = std::atoi(argv[4]);
    try {
        Interfaces::IReceiver* receiver = createReceiver(Definitions::RuntimeOperationMode::Called);
        receiver->Initialize(8, 2, 0);
        std::atomic<int> failed{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                try {
                    if (!run(receiver, mode, t, rounds)) {
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
