// Records to which later releases add fields. A record begins with its size as the caller was built with: fields behind
// it keep their empty values when the record is read, and are not written.
#pragma once

#include <cloudtunnel_module.h>

#include <cstddef>

#pragma GCC visibility push(hidden)
namespace ctm {

// record_read copies the caller's record `from` to a record of `known` bytes. CTM_BAD_SIZE for a size that no release
// has; `least` is the size of the fields that every release has.
ctm_result record_read(void *to, size_t known, const void *from, size_t least);

// record_write fills the caller's record `to` from a record of `known` bytes, but leaves its size field as the caller
// set it. CTM_NULL for a null `to`, CTM_BAD_SIZE as above.
ctm_result record_write(void *to, const void *from, size_t known, size_t least);

}  // namespace ctm
#pragma GCC visibility pop
