#include "records.h"

#include <algorithm>
#include <cstring>

namespace ctm {
namespace {

constexpr size_t kRecordMax = 4096;  // no record gets larger: a size above was never set

// copy copies a record whose size is `size` for the caller and `known` here. Every release of a record ends with a
// whole field of 8 bytes, or two of 4, so other sizes are refused and no pointer is copied in part.
ctm_result copy(void *to, const void *from, size_t size, size_t known, size_t least) {
    if (size < least || size > kRecordMax || size % alignof(size_t) != 0) return CTM_BAD_SIZE;
    memcpy(to, from, std::min(size, known));
    return CTM_OK;
}

size_t size_of(const void *record) { return *static_cast<const size_t *>(record); }

}  // namespace

ctm_result record_read(void *to, size_t known, const void *from, size_t least) {
    return copy(to, from, size_of(from), known, least);
}

ctm_result record_write(void *to, const void *from, size_t known, size_t least) {
    if (!to) return CTM_NULL;
    const size_t size = size_of(to);
    const ctm_result result = copy(to, from, size, known, least);
    *static_cast<size_t *>(to) = size;
    return result;
}

}  // namespace ctm
