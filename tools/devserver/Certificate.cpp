#include "Certificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>

namespace devserver {

namespace {

void check(bool ok, const std::string& what) {
    if (!ok) {
        throw std::runtime_error("certificate: " + what);
    }
}

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};

std::unique_ptr<FILE, FileCloser> openForWriting(const std::string& path) {
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "w"));
    check(file != nullptr, "cannot write " + path);
    return file;
}

} // namespace

void writeSelfSignedCertificate(const std::string& certPath, const std::string& keyPath) {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    check(key != nullptr, "key generation failed");
    std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
    check(cert != nullptr, "X509_new failed");

    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), static_cast<long>(std::time(nullptr)));
    // An hour back for clocks that disagree a little; a week is longer than any run.
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 7L * 24 * 3600);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);

    // Clients trust the file itself as their CA, so it must be able to act as one.
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, cert.get(), cert.get(), nullptr, nullptr, 0);
    const std::pair<int, const char*> extensions[] = {
        {NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1"},
        {NID_basic_constraints, "critical,CA:TRUE"},
        {NID_key_usage, "critical,digitalSignature,keyCertSign"},
        {NID_ext_key_usage, "serverAuth"},
        {NID_subject_key_identifier, "hash"},
    };
    for (const auto& [nid, value] : extensions) {
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
        check(extension != nullptr, std::string("extension ") + value);
        X509_add_ext(cert.get(), extension, -1);
        X509_EXTENSION_free(extension);
    }
    check(X509_sign(cert.get(), key.get(), EVP_sha256()) > 0, "signing failed");

    auto keyFile = openForWriting(keyPath);
    ::chmod(keyPath.c_str(), 0600);
    check(PEM_write_PrivateKey(keyFile.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) ==
              1,
          "cannot write the key");
    auto certFile = openForWriting(certPath);
    check(PEM_write_X509(certFile.get(), cert.get()) == 1, "cannot write the certificate");
}

} // namespace devserver
