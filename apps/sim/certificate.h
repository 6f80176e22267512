// The platform's certificate: one from a file, or one that is made at start, self-signed and kept in memory only.
#pragma once

#include <string>
#include <string_view>

#include <openssl/ssl.h>

namespace sim {

// use_fresh_certificate makes an EC P-256 key with a self-signed certificate for `host` and gives both to `context`.
// Throws std::runtime_error when OpenSSL fails.
void use_fresh_certificate(SSL_CTX *context, const std::string &host);

// use_faulty_certificate gives one session, in place of its context's, a fresh certificate for `host` that is expired,
// is of another name, has an issuer that nobody knows, or comes with so many right issuers: `how` is expired,
// other-name, unknown-issuer or chain. Throws std::runtime_error when OpenSSL fails.
void use_faulty_certificate(SSL *session, const std::string &host, std::string_view how, long issuers);

// use_certificate_file gives `context` the certificate in the PEM file `name`, the issuers behind it, and its key.
// Throws std::runtime_error when the file has none or the two do not belong together.
void use_certificate_file(SSL_CTX *context, const std::string &name);

}  // namespace sim
