// One connection's TLS session. This room knows OpenSSL, not the event loop.
#pragma once

#include <cloudtunnel.h>

// The values of a connection's sslState.
constexpr uint32_t kTlsNone = 0;
constexpr uint32_t kTlsHandshaking = 1;
constexpr uint32_t kTlsEstablished = 2;

enum class TlsStep { failed, done, want_read, want_write };

// tls_handshake makes one step of the connection's handshake, beginning it where there is no session yet, and logs what
// came of it.
[[nodiscard]] TlsStep tls_handshake(cloudtunnel_connect_node *conn);

// tls_pending tells whether the connection's session holds bytes that were received and not read yet: no readiness of
// the socket will ever tell of them.
bool tls_pending(const cloudtunnel_connect_node *conn);
