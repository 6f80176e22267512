// Records that grow: they begin with their size as the caller knows it. What the caller's is too short for stays at its
// empty value, and is not written.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace ctm {

constexpr size_t kRecordMax = 4096;  // no release of a record is larger: what is, was never set

// record_read copies a caller's record of `size` bytes. False for a size that cannot be one: `least` bytes are there in
// every release.
template <typename Record>
[[nodiscard]] bool record_read(Record &to, const Record *from, size_t size, size_t least) {
    if (size < least || size > kRecordMax) return false;
    memcpy(&to, from, std::min(size, sizeof to));
    return true;
}

// record_write fills a caller's record of `size` bytes, its size field as the caller set it.
template <typename Record>
[[nodiscard]] bool record_write(Record *to, Record from, size_t least) {
    const size_t size = to->size;
    if (size < least || size > kRecordMax) return false;
    from.size = size;
    memcpy(to, &from, std::min(size, sizeof from));
    return true;
}

}  // namespace ctm
