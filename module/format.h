// Messages of libcloudtunnel's log are recognised by their formats. The library does not hold the formats, only a hash
// of each, which the compiler computes. A test shows that no other text of libcloudtunnel has the hash of a known
// format.
#pragma once

#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

// format_id returns the hash of a format (FNV-1a, 32 bits).
constexpr uint32_t format_id(const char *format) {
    uint32_t id = 0x811c9dc5;
    for (; *format; format++) id = (id ^ static_cast<uint8_t>(*format)) * 0x01000193;
    return id;
}

}  // namespace ctm
#pragma GCC visibility pop
