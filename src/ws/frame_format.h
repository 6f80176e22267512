// The numbers of a frame header (RFC 6455, section 5.2), shared by the writer and the reader.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint8_t kFin = 0x80;         // byte 0
constexpr uint8_t kOpcodeBits = 0x0f;  // byte 0
constexpr uint8_t kMaskBit = 0x80;     // byte 1
constexpr uint8_t kLengthBits = 0x7f;  // byte 1

constexpr uint8_t kLength16 = 126;  // length codes: 2 or 8 bytes of length follow
constexpr uint8_t kLength64 = 127;
constexpr int64_t kLength7Max = 125;
constexpr int64_t kLength16Max = 65535;

constexpr size_t kBaseHeader = 2;
constexpr size_t kMaskSize = 4;
constexpr size_t kHeaderMax = kBaseHeader + 8 + kMaskSize;

constexpr uint8_t kOpcodeText = 1;
constexpr uint8_t kOpcodeClose = 8;

// The longest payload: sizes are ints where bytes are sent and received.
constexpr int64_t kPayloadMax = INT32_MAX;

// cloudmgr_ws_maskData writes the `len` bytes at `from` to `to`, with the mask key applied. The two may be the same
// place. Applied twice the key restores the bytes.
void cloudmgr_ws_maskData(uint8_t *to, const uint8_t *from, size_t len, const uint8_t (&key)[kMaskSize]);
