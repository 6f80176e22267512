// The platform's certificate: made at start, self-signed, kept in memory only.
#pragma once

#include <string>

#include <openssl/ssl.h>

namespace sim {

// use_fresh_certificate makes an EC P-256 key with a self-signed certificate for `host` and gives both to `context`.
// Throws std::runtime_error when OpenSSL fails.
void use_fresh_certificate(SSL_CTX *context, const std::string &host);

}  // namespace sim
