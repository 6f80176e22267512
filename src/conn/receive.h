// Reading: the results of all readers, and the receive buffer of a connection. It holds the bytes that were received
// and do not make a complete message yet. A reader that gets one large message in many pieces adds to them here,
// without copying what is there each time.
#pragma once

#include <cloudtunnel.h>

// The results of the readers, by short names.
constexpr int kReadDone = CLOUDTUNNEL_READ_DONE;
constexpr int kReadBad = CLOUDTUNNEL_READ_BAD;
constexpr int kReadIncomplete = CLOUDTUNNEL_READ_INCOMPLETE;

inline bool incomplete(int result) {
    return result == CLOUDTUNNEL_READ_INCOMPLETE || result == CLOUDTUNNEL_READ_INCOMPLETE_TOO;
}

// receive_data does what CLOUDMGR_socket_getData does, for a connection that was found by its socket already.
[[nodiscard]] int receive_data(const cloudtunnel_connect_node *conn, uint8_t *dst, int need, int offset,
                               uint32_t *from_buf, uint32_t *from_sock);

// receive_buffer_set makes `block`, from malloc, of which `len` bytes count, the receive buffer. The old one is freed.
void receive_buffer_set(cloudtunnel_connect_node *conn, uint8_t *block, int32_t len);

// receive_buffer_fill reads the socket once for the bytes that are missing to `total` in the receive buffer, and
// appends them. Room for `total` bytes and a zero byte is made at once. Results as CLOUDMGR_socket_getData.
[[nodiscard]] int receive_buffer_fill(cloudtunnel_connect_node *conn, int total);

// receive_buffer_take returns the block of the receive buffer, for the caller to free, and leaves the buffer empty.
[[nodiscard]] uint8_t *receive_buffer_take(cloudtunnel_connect_node *conn);
