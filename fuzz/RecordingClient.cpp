// A client library that records instead of connecting: it stands in for both
// libOstrelinkTcpClient.so and libOstrelinkTcpTlsClient.so in the transmitter's fuzz
// installation, so that arbitrary addresses and ports never reach the network.
//
// The reply to a message is the message itself followed by "<kind> <host>:<port>", where kind is
// "tls" when the library was loaded under the TLS client's file name and "tcp" otherwise. The
// fuzzer checks from the reply which channel served the message.

#include <dlfcn.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <ostrelink/ITransport.h>

using Ostrelink::Native::Interfaces::ITransport;

namespace {

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
    RecordingChannel(std::string host, unsigned short port)
        : m_tag(loadedKind() + " " + host + ":" + std::to_string(port)) {}

    int Initialize(unsigned char, unsigned char, unsigned char) override { return 0; }

    int SendCommand(unsigned char* message, int length) override {
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
        if (found == m_replies.end() || length < 0) {
            return -1;
        }
        const std::size_t count = std::min(found->second.size(), static_cast<std::size_t>(length));
        std::copy_n(found->second.begin(), count, buffer);
        m_replies.erase(found);
        return 0;
    }

    unsigned char SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char,
                                     std::string) override {
        return 0;
    }
    unsigned char DeployRuntime(unsigned char*, int, std::string, unsigned char) override {
        return 0;
    }

private:
    const std::string m_tag;
    std::mutex m_mutex;
    std::map<std::thread::id, std::vector<unsigned char>> m_replies;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) ITransport* CreateTransportChannel(
    std::string host, unsigned short port) {
    return new RecordingChannel(std::move(host), port);
}
