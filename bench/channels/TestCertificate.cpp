#include "channels/TestCertificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace {

struct KeyDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertificateDeleter {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct ExtensionDeleter {
    void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};

void require(bool ok, const char* what) {
    if (!ok) {
        throw std::runtime_error(std::string("test certificate: ") + what + " failed");
    }
}

void addExtension(X509* certificate, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const std::unique_ptr<X509_EXTENSION, ExtensionDeleter> extension(
        X509V3_EXT_conf_nid(nullptr, &context, nid, value));
    require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1,
            "an extension");
}

std::unique_ptr<FILE, FileCloser> create(const std::string& path) {
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "w"));
    require(file != nullptr, "creating a PEM file");
    return file;
}

}  // namespace

TestCertificate::TestCertificate() {
    m_directory = "/tmp/ostrelink-bench-XXXXXX";
    require(mkdtemp(m_directory.data()) != nullptr, "mkdtemp");
    m_certificateFile = m_directory + "/server.crt";
    m_keyFile = m_directory + "/server.key";

    const std::unique_ptr<EVP_PKEY, KeyDeleter> key(EVP_EC_gen("P-256"));
    require(key != nullptr, "key generation");
    const std::unique_ptr<X509, CertificateDeleter> certificate(X509_new());
    require(certificate != nullptr, "X509_new");
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -60);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 24L * 3600L);
    require(X509_set_pubkey(certificate.get(), key.get()) == 1, "X509_set_pubkey");
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    addExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate.get(), NID_subject_alt_name, "IP:127.0.0.1");
    require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0, "X509_sign");

    require(PEM_write_X509(create(m_certificateFile).get(), certificate.get()) == 1,
            "writing the certificate");
    require(PEM_write_PrivateKey(create(m_keyFile).get(), key.get(), nullptr, nullptr, 0, nullptr,
                                 nullptr) == 1,
            "writing the key");
}

TestCertificate::~TestCertificate() {
    std::remove(m_certificateFile.c_str());
    std::remove(m_keyFile.c_str());
    rmdir(m_directory.c_str());
}
