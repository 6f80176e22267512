#include "certificate.h"

#include <memory>
#include <stdexcept>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

namespace sim {
namespace {

struct Free {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX *context) const { EVP_PKEY_CTX_free(context); }
    void operator()(X509 *certificate) const { X509_free(certificate); }
};

template <class T>
using Owned = std::unique_ptr<T, Free>;

constexpr long kValidSeconds = 24L * 60 * 60;  // no run lasts longer, and nobody keeps the certificate

void need(bool ok) {
    if (!ok) throw std::runtime_error("cannot make a TLS certificate");
}

Owned<EVP_PKEY> make_key() {
    const Owned<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr));
    need(context && EVP_PKEY_keygen_init(context.get()) == 1);
    need(EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), NID_X9_62_prime256v1) == 1);
    need(EVP_PKEY_CTX_set_ec_param_enc(context.get(), OPENSSL_EC_NAMED_CURVE) == 1);
    EVP_PKEY *key = nullptr;
    need(EVP_PKEY_keygen(context.get(), &key) == 1);
    return Owned<EVP_PKEY>(key);
}

Owned<X509> make_certificate(EVP_PKEY *key, const std::string &host) {
    Owned<X509> certificate(X509_new());
    need(certificate != nullptr);
    X509 *const x = certificate.get();
    need(X509_set_version(x, 2) == 1);  // counted from 0: version 3
    need(ASN1_INTEGER_set(X509_get_serialNumber(x), 1) == 1);
    need(X509_gmtime_adj(X509_getm_notBefore(x), 0) && X509_gmtime_adj(X509_getm_notAfter(x), kValidSeconds));
    need(X509_set_pubkey(x, key) == 1);
    const std::string name = host.substr(0, 64);  // a common name holds no more
    X509_NAME *const subject = X509_get_subject_name(x);
    need(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(name.data()),
                                    static_cast<int>(name.size()), -1, 0) == 1);
    need(X509_set_issuer_name(x, subject) == 1);
    need(X509_sign(x, key, EVP_sha256()) > 0);
    return certificate;
}

}  // namespace

void use_fresh_certificate(SSL_CTX *context, const std::string &host) {
    const Owned<EVP_PKEY> key = make_key();
    const Owned<X509> certificate = make_certificate(key.get(), host);
    need(SSL_CTX_use_certificate(context, certificate.get()) == 1);
    need(SSL_CTX_use_PrivateKey(context, key.get()) == 1);
}

void use_certificate_file(SSL_CTX *context, const std::string &name) {
    // A key that does not belong to the certificate is refused here too.
    if (SSL_CTX_use_certificate_chain_file(context, name.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, name.c_str(), SSL_FILETYPE_PEM) != 1) {
        throw std::runtime_error("'" + name + "' is no PEM file with a certificate and its key");
    }
}

}  // namespace sim
