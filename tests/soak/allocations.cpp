#include "tests/soak/allocations.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include <malloc.h>

#ifdef SOAK_SANITIZED

extern "C" size_t __sanitizer_get_current_allocated_bytes();  // the compilers come with it, not all with its header

namespace soak {

Allocations allocations() { return {.bytes = static_cast<int64_t>(__sanitizer_get_current_allocated_bytes())}; }

}  // namespace soak

#else

namespace {

std::atomic<int64_t> blocks{0};
std::atomic<int64_t> bytes{0};

void *given(void *block) {
    if (!block) return block;
    blocks.fetch_add(1, std::memory_order_relaxed);
    bytes.fetch_add(static_cast<int64_t>(malloc_usable_size(block)), std::memory_order_relaxed);
    return block;
}

void taken_back(void *block) {
    if (!block) return;
    blocks.fetch_sub(1, std::memory_order_relaxed);
    bytes.fetch_sub(static_cast<int64_t>(malloc_usable_size(block)), std::memory_order_relaxed);
}

}  // namespace

namespace soak {

Allocations allocations() { return {.blocks = blocks, .bytes = bytes}; }

}  // namespace soak

extern "C" {

// glibc's own, under the names it keeps for programs that stand before it.
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);

void *malloc(size_t size) { return given(__libc_malloc(size)); }
void *calloc(size_t count, size_t size) { return given(__libc_calloc(count, size)); }
void *memalign(size_t alignment, size_t size) { return given(__libc_memalign(alignment, size)); }
void *aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void **block, size_t alignment, size_t size) {
    *block = memalign(alignment, size);
    return *block || size == 0 ? 0 : ENOMEM;
}

void *realloc(void *block, size_t size) {
    taken_back(block);
    void *const moved = __libc_realloc(block, size);
    if (!moved && size != 0) {
        given(block);  // it stayed
        return nullptr;
    }
    return given(moved);
}

void free(void *block) {
    taken_back(block);
    __libc_free(block);
}

}  // extern "C"

#endif
