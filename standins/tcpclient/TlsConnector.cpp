#include <cstdio>

#include "Connector.h"
#include "NetworkError.h"
#include "TlsChannel.h"

namespace Ostrelink::Network::Client {

namespace {

NetworkError settingsError(const std::string& what) {
    return NetworkError("Ostrelink TLS client: " + what + ": " + takeTlsErrors());
}

class TlsConnector : public Connector {
public:
    explicit TlsConnector(const ClientSettings& settings)
        : m_context(makeSslContext(false)),
          m_connectTimeoutMs(settings.connectTimeoutMs),
          m_insecure(settings.insecure) {
        SSL_CTX* context = m_context.get();
        if (m_insecure) {
            SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);
            std::fputs(
                "Ostrelink TLS client: OSTRELINK_TLS_INSECURE=1: the server's certificate is NOT "
                "verified, so anyone on the network path can read and change every command\n",
                stderr);
            std::fflush(stderr);
        } else {
            SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
            if (!settings.caFile.empty()) {
                if (SSL_CTX_load_verify_locations(context, settings.caFile.c_str(), nullptr) != 1) {
                    throw settingsError("cannot load the CA file " + settings.caFile +
                                        " (OSTRELINK_TLS_CA_FILE)");
                }
            } else if (SSL_CTX_set_default_verify_paths(context) != 1) {
                throw settingsError("cannot load the system's trusted certificates");
            }
        }
        if (settings.certFile.empty() != settings.keyFile.empty()) {
            throw NetworkError(
                "Ostrelink TLS client: OSTRELINK_TLS_CERT_FILE and OSTRELINK_TLS_KEY_FILE must be "
                "set together");
        }
        if (!settings.certFile.empty()) {
            if (SSL_CTX_use_certificate_chain_file(context, settings.certFile.c_str()) != 1) {
                throw settingsError("cannot load the client certificate " + settings.certFile +
                                    " (OSTRELINK_TLS_CERT_FILE)");
            }
            if (SSL_CTX_use_PrivateKey_file(context, settings.keyFile.c_str(), SSL_FILETYPE_PEM) !=
                    1 ||
                SSL_CTX_check_private_key(context) != 1) {
                throw settingsError("cannot use the client key " + settings.keyFile +
                                    " (OSTRELINK_TLS_KEY_FILE)");
            }
        }
    }

    const char* kind() const override { return "TLS"; }

    std::unique_ptr<ByteChannel> open(const std::string& host, unsigned short port) override {
        Socket socket = Socket::connectTo(host, port, m_connectTimeoutMs);
        return TlsChannel::connect(std::move(socket), m_context.get(), m_insecure ? "" : host,
                                   m_connectTimeoutMs);
    }

private:
    SslContext m_context;
    int m_connectTimeoutMs;
    bool m_insecure;
};

}  // namespace

std::unique_ptr<Connector> makeConnector(const ClientSettings& settings) {
    return std::make_unique<TlsConnector>(settings);
}

}  // namespace Ostrelink::Network::Client
