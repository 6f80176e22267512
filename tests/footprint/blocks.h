// Blocks: what the shared library, and OpenSSL on its behalf, have from the allocator, separated by who asked. The
// program's own malloc stands before libc's and counts what was asked for. What the test does itself, under
// support::Quiet, does not count: the server's TLS is not the library's.
#ifndef TESTS_FOOTPRINT_BLOCKS_H
#define TESTS_FOOTPRINT_BLOCKS_H

#include <cstdint>

namespace footprint {

struct Blocks {
    struct Share {
        int64_t bytes = 0;
        int64_t blocks = 0;
        Share operator-(const Share &other) const { return {bytes - other.bytes, blocks - other.blocks}; }
    };
    Share library;
    Share openssl;
    Share others;  // json-c

    Blocks operator-(const Blocks &other) const {
        return {library - other.library, openssl - other.openssl, others - other.others};
    }
};
Blocks blocks();

}  // namespace footprint

#endif
