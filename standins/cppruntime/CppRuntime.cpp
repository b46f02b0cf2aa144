#include "CppRuntime.h"

#include <ostrelink/CommandHeader.h>
#include <ostrelink/CommandType.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace OstrelinkCppRuntime {

using Ostrelink::Native::Definitions::CommandHeader;
using Ostrelink::Native::Definitions::CommandType;
using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;
using Ostrelink::Native::Interfaces::ITransport;

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char neverCalled = 0xFE;

// Thrown on request: a throwable of no standard type, as foreign code may throw.
struct PlainStruct {
    int value = 0;
};

// Everything the library records, for the query commands of README.md.
struct Record {
    std::mutex mutex;
    unsigned char receiverMode = neverCalled;
    unsigned char transmitterMode = neverCalled;
    unsigned char receiverCalls = 0;
    unsigned char transmitterCalls = 0;
    Bytes runtimes;  // calling, called, version of the first Initialize
    unsigned char initializeCalls = 0;
    Bytes lastHeartBeat;
    unsigned char deployments = 0;
    Bytes embedded;  // version, then the path
};

Record& record() {
    static Record instance;
    return instance;
}

unsigned char increment(unsigned char count) {
    return count == 255 ? count : static_cast<unsigned char>(count + 1);
}

// A reply: the request's header, commandType replaced, then payload.
Bytes reply(const unsigned char* message, unsigned char commandType, const Bytes& payload) {
    Bytes bytes(CommandHeader::size + payload.size());
    std::memcpy(bytes.data(), message, CommandHeader::size);
    bytes[CommandHeader::commandType] = commandType;
    std::copy(payload.begin(), payload.end(), bytes.begin() + CommandHeader::size);
    return bytes;
}

std::string payloadText(const unsigned char* message, int length) {
    if (length <= CommandHeader::payloadTextOffset) {
        return {};
    }
    return std::string(message + CommandHeader::payloadTextOffset, message + length);
}

class CppReceiver : public IReceiver {
public:
    int SetConfigSource(std::string) override { return 0; }

    int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                   unsigned char runtimeVersion) override {
        Record& state = record();
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.runtimes.empty()) {
            state.runtimes = {callingRuntime, calledRuntime, runtimeVersion};
        }
        state.initializeCalls = increment(state.initializeCalls);
        return 0;
    }

    int SendCommand(unsigned char* message, int length) override {
        if (message == nullptr || length < CommandHeader::size) {
            throw CppRuntimeError("Cpp runtime: a command needs its 11-byte header");
        }
        Bytes answer = answerTo(message, length);
        const auto size = static_cast<int>(answer.size());
        std::lock_guard<std::mutex> lock(m_repliesMutex);
        m_replies[std::this_thread::get_id()] = std::move(answer);
        return size;
    }

    int ReadResponse(unsigned char* buffer, int length) override {
        Bytes stored;
        {
            std::lock_guard<std::mutex> lock(m_repliesMutex);
            const auto found = m_replies.find(std::this_thread::get_id());
            if (found == m_replies.end()) {
                throw CppRuntimeError("Cpp runtime: no response stored for this thread");
            }
            stored = std::move(found->second);
            m_replies.erase(found);
        }
        const auto count = std::min(stored.size(), static_cast<std::size_t>(std::max(length, 0)));
        std::copy_n(stored.begin(), count, buffer);
        return 0;
    }

    void LogException(unsigned char*, int) override {}
    unsigned char LoadOptimizedMethod(std::string) override { return 1; }

    unsigned char SetEmbeddedRuntime(unsigned char runtimeVersion, std::string path) override {
        Record& state = record();
        std::lock_guard<std::mutex> lock(state.mutex);
        state.embedded.assign(1, runtimeVersion);
        state.embedded.insert(state.embedded.end(), path.begin(), path.end());
        return 1;
    }

    unsigned char DeployRuntime(unsigned char*, int, std::string, unsigned char) override {
        return 1;
    }

private:
    static Bytes answerTo(const unsigned char* message, int length) {
        Record& state = record();
        if (message[CommandHeader::commandType] ==
            static_cast<unsigned char>(CommandType::HeartBeatCommand)) {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.lastHeartBeat.assign(message, message + length);
            return Bytes(message, message + length);
        }
        const std::string text = payloadText(message, length);
        if (text == "fail") {
            throw CppRuntimeError("Cpp runtime: command failed on request");
        }
        if (text == "throw struct") {
            throw PlainStruct{};
        }
        // A slow command, for what a server does with a command in progress.
        if (text.rfind("sleep ", 0) == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(text.c_str() + 6)));
            return Bytes(message, message + length);
        }
        if (text == "exception") {
            return reply(message, static_cast<unsigned char>(CommandType::ExceptionReply),
                         Bytes(text.begin(), text.end()));
        }
        std::lock_guard<std::mutex> lock(state.mutex);
        if (text == "runtimes") {
            Bytes payload = state.runtimes;
            payload.push_back(state.initializeCalls);
            return reply(message, 0, payload);
        }
        if (text == "factories") {
            return reply(message, 0,
                         {state.receiverMode, state.transmitterMode, state.receiverCalls,
                          state.transmitterCalls});
        }
        if (text == "heartbeat") {
            return reply(message, 0, state.lastHeartBeat);
        }
        if (text == "deployments") {
            return reply(message, 0, {state.deployments});
        }
        if (text == "embedded") {
            return reply(message, 0, state.embedded);
        }
        return Bytes(message, message + length);
    }

    std::mutex m_repliesMutex;
    std::map<std::thread::id, Bytes> m_replies;
};

// Sends nothing anywhere: it has no channels. A deployment is only counted.
class CppTransmitter : public ITransmitter {
public:
    int SendCommand(unsigned char*, int) override {
        throw CppRuntimeError("Cpp runtime: this transmitter sends nothing");
    }
    int ReadResponse(unsigned char*, int) override {
        throw CppRuntimeError("Cpp runtime: this transmitter sends nothing");
    }
    void SetTransportChannel(ITransport* channel) override { delete channel; }
    unsigned char SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char,
                                     std::string) override {
        return 0;
    }
    unsigned char DeployRuntime(unsigned char*, int, std::string, unsigned char) override {
        Record& state = record();
        std::lock_guard<std::mutex> lock(state.mutex);
        state.deployments = increment(state.deployments);
        return 1;
    }
};

unsigned char modeByte(RuntimeOperationMode mode) {
    return static_cast<unsigned char>(static_cast<int>(mode) & 0xFF);
}

}  // namespace

IReceiver* receiver(RuntimeOperationMode mode) {
    static CppReceiver instance;
    Record& state = record();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.receiverMode = modeByte(mode);
    state.receiverCalls = increment(state.receiverCalls);
    return &instance;
}

ITransmitter* transmitter(RuntimeOperationMode mode) {
    static CppTransmitter instance;
    Record& state = record();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.transmitterMode = modeByte(mode);
    state.transmitterCalls = increment(state.transmitterCalls);
    return &instance;
}

}  // namespace OstrelinkCppRuntime
