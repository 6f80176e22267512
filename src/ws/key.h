// The opening handshake's key, and the check of the answer to it.
#pragma once

// key_make returns a new Sec-WebSocket-Key of 24 characters, for the caller to free; null on failure.
[[nodiscard]] char *key_make();

// key_accepts is true when `accept` is the answer to `key` that RFC 6455, section 4.1 requires; false for null texts.
[[nodiscard]] bool key_accepts(const char *key, const char *accept);
