// The chunks of a chunked body (RFC 9112, section 7.1) between their decoding and the joining into one body.
#pragma once

#include <cloudtunnel.h>

struct Chunk {
    int64_t length;
    uint8_t *data;  // owned
    Chunk *next;    // owned
};

enum class Chunks : int { done = 0, error = -1, incomplete = -2 };

// chunks_join appends the `count` chunks behind `head` to the response's body. The list is freed in every case.
[[nodiscard]] Chunks chunks_join(Chunk *head, int count, cloudtunnel_http_resp *resp);
