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

// What a certificate says, and who signs it.
struct Contents {
    std::string name;
    std::string issuer;
    EVP_PKEY *key;
    EVP_PKEY *signer;
    long from = 0;  // both in seconds from now
    long to = kValidSeconds;
    long serial = 1;
};

void set_name(X509_NAME *name, const std::string &text) {
    const std::string cut = text.substr(0, 64);  // a common name holds no more
    need(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(cut.data()),
                                    static_cast<int>(cut.size()), -1, 0) == 1);
}

Owned<X509> make_certificate(const Contents &contents) {
    Owned<X509> certificate(X509_new());
    need(certificate != nullptr);
    X509 *const x = certificate.get();
    need(X509_set_version(x, 2) == 1);  // counted from 0: version 3
    need(ASN1_INTEGER_set(X509_get_serialNumber(x), contents.serial) == 1);
    need(X509_gmtime_adj(X509_getm_notBefore(x), contents.from) && X509_gmtime_adj(X509_getm_notAfter(x), contents.to));
    need(X509_set_pubkey(x, contents.key) == 1);
    set_name(X509_get_subject_name(x), contents.name);
    set_name(X509_get_issuer_name(x), contents.issuer);
    need(X509_sign(x, contents.signer, EVP_sha256()) > 0);
    return certificate;
}

}  // namespace

void use_fresh_certificate(SSL_CTX *context, const std::string &host) {
    const Owned<EVP_PKEY> key = make_key();
    const Owned<X509> certificate =
        make_certificate({.name = host, .issuer = host, .key = key.get(), .signer = key.get()});
    need(SSL_CTX_use_certificate(context, certificate.get()) == 1);
    need(SSL_CTX_use_PrivateKey(context, key.get()) == 1);
}

void use_faulty_certificate(SSL *session, const std::string &host, std::string_view how, long issuers) {
    const Owned<EVP_PKEY> key = make_key();
    const Owned<EVP_PKEY> issuer_key = make_key();
    Contents contents = {.name = host, .issuer = host, .key = key.get(), .signer = key.get()};
    if (how == "expired") {
        contents.from = -2 * kValidSeconds;
        contents.to = -kValidSeconds;
    } else if (how == "other-name") {
        contents.name = contents.issuer = "other.example";
    } else {
        contents.issuer = "issuer 1";
        contents.signer = issuer_key.get();
    }
    const Owned<X509> certificate = make_certificate(contents);
    need(SSL_use_certificate(session, certificate.get()) == 1);
    need(SSL_use_PrivateKey(session, key.get()) == 1);
    if (how != "chain") return;
    for (long i = 1; i <= issuers; i++) {
        const long above = i == issuers ? i : i + 1;  // the last one is its own issuer
        const Owned<X509> issuer = make_certificate({.name = "issuer " + std::to_string(i),
                                                     .issuer = "issuer " + std::to_string(above),
                                                     .key = issuer_key.get(),
                                                     .signer = issuer_key.get(),
                                                     .serial = i + 1});
        need(SSL_add1_chain_cert(session, issuer.get()) == 1);
    }
}

void use_certificate_file(SSL_CTX *context, const std::string &name) {
    // A key that does not belong to the certificate is refused here too.
    if (SSL_CTX_use_certificate_chain_file(context, name.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, name.c_str(), SSL_FILETYPE_PEM) != 1) {
        throw std::runtime_error("'" + name + "' is no PEM file with a certificate and its key");
    }
}

}  // namespace sim
