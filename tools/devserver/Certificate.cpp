#include "Certificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>

namespace devserver {

namespace {

template <typename T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, decltype([](T* p) { Free(p); })>;

void check(bool ok, const char* what) {
    if (!ok) {
        throw std::runtime_error(std::string("certificate: ") + what);
    }
}

void writePEM(const std::string& path, const std::function<int(FILE*)>& write) {
    FILE* file = std::fopen(path.c_str(), "w");
    check(file != nullptr, "cannot open output file");
    const int ok = write(file);
    std::fclose(file);
    check(ok == 1, "cannot write PEM");
}

} // namespace

void writeSelfSignedCertificate(const std::string& certPath, const std::string& keyPath) {
    Owned<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
    check(key != nullptr, "key generation failed");

    Owned<X509, X509_free> cert(X509_new());
    check(cert != nullptr, "X509_new failed");
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), static_cast<long>(std::time(nullptr)));
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 7L * 24 * 3600);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);

    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, cert.get(), cert.get(), nullptr, nullptr, 0);
    for (const auto& [nid, value] :
         {std::pair{NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1"},
          std::pair{NID_basic_constraints, "critical,CA:TRUE"}}) {
        Owned<X509_EXTENSION, X509_EXTENSION_free> extension(
            X509V3_EXT_conf_nid(nullptr, &context, nid, value));
        check(extension != nullptr, "extension");
        X509_add_ext(cert.get(), extension.get(), -1);
    }
    check(X509_sign(cert.get(), key.get(), EVP_sha256()) > 0, "signing failed");

    writePEM(keyPath, [&](FILE* f) {
        return PEM_write_PrivateKey(f, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    writePEM(certPath, [&](FILE* f) { return PEM_write_X509(f, cert.get()); });
}

} // namespace devserver
