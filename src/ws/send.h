// The frame header writers.
#pragma once

#include <cloudtunnel.h>

#include <cstddef>

// The position of a frame in a message. The values are those that callers of the fragment senders pass.
enum class Fragment : int { whole = 0, first = 1, middle = 2, last = 3 };

// cloudmgr_ws_htonl swaps the bytes of a 32-bit number.
inline uint32_t cloudmgr_ws_htonl(uint32_t value) { return __builtin_bswap32(value); }

// cloudmgr_ws_setHead writes the header of a frame with `length` bytes of payload and returns its length: 2, 4 or 10,
// and 4 more with a mask key. `to` has room for kHeaderMax bytes. cloudmgr_ws_setHeadBigEndian does the same with the
// bits of the first two bytes mirrored.
size_t cloudmgr_ws_setHead(uint8_t *to, const cloudmgr_ws_msg *msg, Fragment position, int64_t length);
size_t cloudmgr_ws_setHeadBigEndian(uint8_t *to, const cloudmgr_ws_msg *msg, Fragment position, int64_t length);
