// A client library that connects nowhere: its channel echoes each message back to the thread
// that sent it, and the library records every call it gets as a line of text, which a test
// reads with RecordedClientEvents. RECORDING_CLIENT_KIND ("tcp" or "tls") tells the two builds
// apart. A channel made for port 1 fails its Initialize, the way a refused connection would.
#include <ostrelink/ITransport.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using Ostrelink::Native::Interfaces::ITransport;

namespace {

std::mutex eventsMutex;
std::vector<std::string> events;

void recordEvent(const std::string& event) {
    std::lock_guard<std::mutex> lock(eventsMutex);
    events.push_back(event);
}

class RecordingChannel : public ITransport {
public:
    RecordingChannel(const std::string& host, unsigned short port)
        : m_name(std::string(RECORDING_CLIENT_KIND) + " " + host + ":" + std::to_string(port)),
          m_refuses(port == 1) {}
    ~RecordingChannel() override { recordEvent("destroy " + m_name); }
    RecordingChannel(const RecordingChannel&) = delete;
    RecordingChannel& operator=(const RecordingChannel&) = delete;

    int Initialize(unsigned char callingRuntime, unsigned char calledRuntime,
                   unsigned char runtimeVersion) override {
        recordEvent("initialize " + m_name + " " + std::to_string(callingRuntime) + "," +
                    std::to_string(calledRuntime) + "," + std::to_string(runtimeVersion));
        if (m_refuses) {
            throw std::runtime_error("recording client: connection refused");
        }
        return 0;
    }
    int SendCommand(unsigned char* message, int length) override {
        recordEvent("send " + m_name);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_replies[std::this_thread::get_id()].assign(message, message + length);
        return length;
    }
    int ReadResponse(unsigned char* buffer, int length) override {
        std::lock_guard<std::mutex> lock(m_mutex);
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
        recordEvent("embedded " + m_name);
        return 0;
    }
    unsigned char DeployRuntime(unsigned char*, int, std::string, unsigned char) override {
        recordEvent("deploy " + m_name);
        return 0;
    }

private:
    const std::string m_name;
    const bool m_refuses;
    std::mutex m_mutex;
    std::map<std::thread::id, std::vector<unsigned char>> m_replies;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) ITransport* CreateTransportChannel(
    std::string host, unsigned short port) {
    recordEvent(std::string("create ") + RECORDING_CLIENT_KIND + " " + host + ":" +
                std::to_string(port));
    return new RecordingChannel(host, port);
}

extern "C" __attribute__((visibility("default"))) void RecordedClientEvents(
    std::vector<std::string>* out) {
    std::lock_guard<std::mutex> lock(eventsMutex);
    *out = events;
}
