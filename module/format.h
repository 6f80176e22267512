// Messages of libcloudtunnel's log are recognised by their formats. The library keeps a number of each, made when it is
// compiled, in place of a copy of the text: the tests show that no two formats of libcloudtunnel have the same number.
#pragma once

#include <cstdint>

#pragma GCC visibility push(hidden)
namespace ctm {

// format_id returns the number of a format (FNV-1a, 32 bits).
constexpr uint32_t format_id(const char *format) {
    uint32_t id = 0x811c9dc5;
    for (; *format; format++) id = (id ^ static_cast<uint8_t>(*format)) * 0x01000193;
    return id;
}

}  // namespace ctm
#pragma GCC visibility pop
