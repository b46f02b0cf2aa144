#include "Connector.h"

namespace Ostrelink::Network::Client {

namespace {

class TcpConnector : public Connector {
public:
    explicit TcpConnector(int connectTimeoutMs) : m_connectTimeoutMs(connectTimeoutMs) {}
    const char* kind() const override { return "TCP"; }
    std::unique_ptr<ByteChannel> open(const std::string& host, unsigned short port) override {
        return std::make_unique<PlainChannel>(Socket::connectTo(host, port, m_connectTimeoutMs));
    }

private:
    int m_connectTimeoutMs;
};

}  // namespace

std::unique_ptr<Connector> makeConnector(const ClientSettings& settings) {
    return std::make_unique<TcpConnector>(settings.connectTimeoutMs);
}

}  // namespace Ostrelink::Network::Client
