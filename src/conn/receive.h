// Reading: the answers of all readers, and the bytes of an incomplete message: how a reader that gets one large message
// in many pieces adds to them without copying what is there each time.
#pragma once

#include <cloudtunnel.h>

// What readers answer besides 0, a complete message. Incomplete means: what there is was saved, call again when more
// data arrive.
constexpr int kReadError = -1;
constexpr int kIncomplete = -2;
constexpr int kIncompleteToo = -3;

inline bool incomplete(int result) { return result == kIncomplete || result == kIncompleteToo; }

// saved_adopt makes `block`, from malloc, of which `len` bytes count, the connection's saved bytes. The old ones are
// freed.
void saved_adopt(cloudtunnel_connect_node *conn, uint8_t *block, int32_t len);

// saved_read adds to the saved bytes, with one read of the socket, what is missing to `total` of them. Room for `total`
// bytes and a zero byte is made at once. Results as CLOUDMGR_socket_getData.
[[nodiscard]] int saved_read(int sock, cloudtunnel_connect_node *conn, int total);

// saved_log tells of the saved bytes, as every change to them does.
void saved_log(const cloudtunnel_connect_node *conn);
