// The TLS session of one connection. It uses OpenSSL, but not the event loop.
#pragma once

#include <cloudtunnel.h>

// The values of a connection's sslState.
constexpr uint32_t kTlsNone = 0;
constexpr uint32_t kTlsHandshaking = 1;
constexpr uint32_t kTlsEstablished = 2;

enum class TlsStep { failed, done, want_read, want_write };

// tls_handshake makes one step of the connection's handshake and logs its result. Without a session it makes one first.
[[nodiscard]] TlsStep tls_handshake(cloudtunnel_connect_node *conn);

// tls_clear_errors empties OpenSSL's queue of errors. The queue is the thread's, not the session's: what another
// session left there would spoil the answer of the next call. An empty one is left alone: OpenSSL clears all its places
// in turn.
void tls_clear_errors();

// tls_pending returns whether the connection's session holds bytes that were received and not read yet. The socket does
// not become readable for them.
bool tls_pending(const cloudtunnel_connect_node *conn);
