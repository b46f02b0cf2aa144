// A client library that records instead of connecting: it stands in for both
// libOstrelinkTcpClient.so and libOstrelinkTcpTlsClient.so in copies of the staged tree, so that
// arbitrary addresses and ports never reach the network.
//
// The reply to a message is the message itself followed by "<kind> <host>:<port>", where kind is
// "tls" when the library was loaded under the TLS client's file name and "tcp" otherwise: a test
// sees from the reply which channel served the message. Every call is recorded as a line of
// text, read with RecordedClientEvents. The Initialize of a channel for the port named by
// RECORDING_CLIENT_REFUSED_PORT fails, the way a refused connection would.

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <ostrelink/ITransport.h>

using Ostrelink::Native::Interfaces::ITransport;

namespace {

std::mutex eventsMutex;
std::vector<std::string> events;

// Only the first events are kept: a fuzzer makes millions of calls.
void recordEvent(const std::string& event) {
    const std::lock_guard<std::mutex> lock(eventsMutex);
    if (events.size() < 10000) {
        events.push_back(event);
    }
}

std::string loadedKind() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&loadedKind), &info) == 0 || info.dli_fname == nullptr) {
        return "tcp";
    }
    const std::string file = info.dli_fname;
    return file.find("TcpTlsClient") != std::string::npos ? "tls" : "tcp";
}

class RecordingChannel : public ITransport {
public:
    RecordingChannel(const std::string& host, unsigned short port)
        : m_tag(loadedKind() + " " + host + ":" + std::to_string(port)), m_port(port) {}
    ~RecordingChannel() override { recordEvent("destroy " + m_tag); }
    RecordingChannel(const RecordingChannel&) = delete;
    RecordingChannel& operator=(const RecordingChannel&) = delete;

    int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                   unsigned char runtimeVersion) override {
        recordEvent("initialize " + m_tag + " " + std::to_string(callingRuntime) + "," +
                    std::to_string(calledRuntime) + "," + std::to_string(runtimeVersion));
        const char* refused = std::getenv("RECORDING_CLIENT_REFUSED_PORT");
        if (refused != nullptr && std::to_string(m_port) == refused) {
            throw std::runtime_error("recording client: connection refused");
        }
        return 0;
    }

    int SendCommand(unsigned char* message, int length) override {
        recordEvent("send " + m_tag);
        std::vector<unsigned char> reply(message, message + length);
        reply.insert(reply.end(), m_tag.begin(), m_tag.end());
        const std::lock_guard<std::mutex> lock(m_mutex);
        auto& stored = m_replies[std::this_thread::get_id()];
        stored = std::move(reply);
        return static_cast<int>(stored.size());
    }

    int ReadResponse(unsigned char* buffer, int length) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_replies.find(std::this_thread::get_id());
        if (found == m_replies.end()) {
            throw std::runtime_error("recording client: no reply for this thread");
        }
        std::copy_n(found->second.begin(),
                    std::min(found->second.size(), static_cast<std::size_t>(std::max(length, 0))),
                    buffer);
        m_replies.erase(found);
        return 0;
    }

    unsigned char SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char,
                                     std::string) override {
        recordEvent("embedded " + m_tag);
        return 0;
    }
    unsigned char DeployRuntime(unsigned char*, int, std::string, unsigned char) override {
        recordEvent("deploy " + m_tag);
        return 0;
    }

private:
    const std::string m_tag;
    const unsigned short m_port;
    std::mutex m_mutex;
    std::map<std::thread::id, std::vector<unsigned char>> m_replies;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) ITransport* CreateTransportChannel(
    std::string host, unsigned short port) {
    recordEvent("create " + loadedKind() + " " + host + ":" + std::to_string(port));
    return new RecordingChannel(host, port);
}

extern "C" __attribute__((visibility("default"))) void RecordedClientEvents(
    std::vector<std::string>* out) {
    const std::lock_guard<std::mutex> lock(eventsMutex);
    *out = events;
}
