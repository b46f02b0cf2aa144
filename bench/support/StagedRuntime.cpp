#include "support/StagedRuntime.h"

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include <ostrelink/RuntimeFactories.h>

#include "common/ChildProcess.h"
#include "common/HostLibrary.h"
#include "common/Messages.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::IReceiver;

IReceiver* calledReceiver() {
    const auto create = HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver");
    IReceiver* receiver = create(RuntimeOperationMode::Called);
    if (receiver == nullptr) {
        throw std::runtime_error("CreateReceiver(1) returned null");
    }
    receiver->Initialize(8, 2, 0);
    return receiver;
}

Bytes echoMessage(int length, unsigned char targetRuntime) {
    const int payload = length - Ostrelink::Native::Definitions::CommandHeader::payloadTextOffset;
    Bytes message =
        makeMessage(targetRuntime, 0, std::string(static_cast<std::size_t>(payload), 'e'));
    message.resize(static_cast<std::size_t>(length));
    return message;
}

int roundTrip(IReceiver& receiver, Bytes& message, Bytes& reply) {
    const int length = receiver.SendCommand(message.data(), static_cast<int>(message.size()));
    if (length < 0 || static_cast<std::size_t>(length) > reply.size()) {
        throw std::runtime_error("reply of " + std::to_string(length) + " bytes does not fit");
    }
    receiver.ReadResponse(reply.data(), length);
    return length;
}

bool keptMode() {
    return std::getenv("OSTRELINK_KEEP_THREADS_ATTACHED") != nullptr;
}

int runKeptMode(int argc, char** argv) {
    ChildProcess::Options options;
    options.captureStdout = true;
    options.environment = {"OSTRELINK_KEEP_THREADS_ATTACHED=true"};
    // By its real path: the runner may start the program through another one.
    ChildProcess child(std::filesystem::read_symlink("/proc/self/exe").string(),
                       std::vector<std::string>(argv + 1, argv + argc), options);
    try {
        for (;;) {
            std::cout << child.readLine(900000) << '\n';
        }
    } catch (const std::runtime_error&) {
        // the end of its output
    }
    std::cout.flush();
    const int status = child.wait();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
