#include "tests/footprint/blocks.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include <dlfcn.h>

#include "tests/support/quiet.h"

namespace footprint {
namespace {

enum class Owner : uint8_t { library, openssl, others };

struct Block {
    void *address = nullptr;
    size_t size = 0;
    Owner owner = Owner::others;
};

// Open addressing with room for many times the blocks of a test; a place that was given back keeps its mark.
constexpr size_t kPlaces = 1 << 18;
char mark;
void *const kGivenBack = &mark;
std::array<Block, kPlaces> places;
std::mutex lock;
Blocks live;

Blocks::Share &share(Owner owner) {
    if (owner == Owner::library) return live.library;
    return owner == Owner::openssl ? live.openssl : live.others;
}

size_t first_place(const void *address) { return (reinterpret_cast<uintptr_t>(address) >> 4) * 2654435761U % kPlaces; }

Block *find(const void *address, const void *stop) {
    for (size_t at = first_place(address), tries = 0; tries < kPlaces; ++tries, at = (at + 1) % kPlaces) {
        if (places[at].address == address) return &places[at];
        if (places[at].address == stop) return nullptr;
    }
    return nullptr;
}

bool named(const char *path, std::string_view name) {
    return std::string_view(path).find(name) != std::string_view::npos;
}

void given(void *block, size_t size, const void *caller) {
    Dl_info where = {};
    if (!block || support::Quiet::here() || !dladdr(caller, &where) || !where.dli_fname) return;
    Owner owner = Owner::others;
    if (named(where.dli_fname, "libcloudtunnel"))
        owner = Owner::library;
    else if (named(where.dli_fname, "libssl") || named(where.dli_fname, "libcrypto"))
        owner = Owner::openssl;
    else if (!named(where.dli_fname, "libjson-c"))
        return;  // the test's own
    const std::lock_guard guard(lock);
    for (size_t at = first_place(block);; at = (at + 1) % kPlaces) {
        if (places[at].address && places[at].address != kGivenBack) continue;
        places[at] = {block, size, owner};
        share(owner).bytes += static_cast<int64_t>(size);
        ++share(owner).blocks;
        return;
    }
}

void taken_back(const void *address) {
    if (!address) return;
    const std::lock_guard guard(lock);
    Block *const block = find(address, nullptr);
    if (!block) return;
    share(block->owner).bytes -= static_cast<int64_t>(block->size);
    --share(block->owner).blocks;
    block->address = kGivenBack;
}

template <class Function>
Function *real(Function *, const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

Blocks blocks() {
    const std::lock_guard guard(lock);
    return live;
}

}  // namespace footprint

#define REAL(name) footprint::real(&::name, #name)
#define CALLER __builtin_return_address(0)

extern "C" {

void *malloc(size_t size) {
    static auto *const next = REAL(malloc);
    void *const block = next(size);
    footprint::given(block, size, CALLER);
    return block;
}

void *calloc(size_t count, size_t size) {
    static auto *const next = REAL(calloc);
    void *const block = next(count, size);
    footprint::given(block, count * size, CALLER);
    return block;
}

void *realloc(void *block, size_t size) {
    static auto *const next = REAL(realloc);
    void *const moved = next(block, size);
    if (!moved) return moved;
    footprint::taken_back(block);
    footprint::given(moved, size, CALLER);
    return moved;
}

void free(void *block) {
    static auto *const next = REAL(free);
    footprint::taken_back(block);
    next(block);
}

}  // extern "C"
