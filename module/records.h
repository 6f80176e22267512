// Records that grow: they begin with their size as the caller knows it. What the caller's is too short for stays at its
// empty value, and is not written.
#pragma once

#include <cloudtunnel_module.h>

#include <cstddef>

#pragma GCC visibility push(hidden)
namespace ctm {

// record_read copies the caller's record `from` to one of `known` bytes. CTM_BAD_SIZE for a size that cannot be one:
// `least` bytes are there in every release.
ctm_result record_read(void *to, size_t known, const void *from, size_t least);

// record_write fills the caller's record `to` from one of `known` bytes, and leaves its size field as the caller set
// it. CTM_NULL where there is none.
ctm_result record_write(void *to, const void *from, size_t known, size_t least);

}  // namespace ctm
#pragma GCC visibility pop
