// The faults of a TLS session that the platform brings about before and in its handshake.
#pragma once

#include <optional>
#include <string>

#include <openssl/ssl.h>

#include "fault_set.h"

namespace sim {

// prepare_session gives a session the version and the certificate that the faults want. Throws std::runtime_error when
// OpenSSL fails.
void prepare_session(SSL *session, ConnectionFaults &faults, const std::string &host);

// handshake_reply is what the platform answers in place of its part of the handshake; nothing where it takes part.
std::optional<std::string> handshake_reply(ConnectionFaults &faults);

}  // namespace sim
