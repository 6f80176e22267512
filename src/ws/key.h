// The opening handshake's key, what answers it, and the bytes both keys and masks are made of.
#pragma once

// key_make returns a new Sec-WebSocket-Key of 24 characters, for the caller to free; null on failure.
[[nodiscard]] char *key_make();

// key_accepts tells whether `accept` is the answer to `key` that RFC 6455, section 4.1 asks for; false for null texts.
[[nodiscard]] bool key_accepts(const char *key, const char *accept);
