#include "tests/torture/third_party.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <openssl/crypto.h>

#include "tests/support/fault.h"
#include "tests/support/quiet.h"

namespace {

constinit support::WrapPoint at_openssl = {"openssl_alloc"};
constinit support::WrapPoint at_json = {"json_alloc"};

void *grow(support::WrapPoint &point, void *block, size_t size) {
    if (point.enter().fails) return nullptr;
    const support::Quiet quiet;  // counted already, and not as the library's own
    return std::realloc(block, size);
}

void *openssl_malloc(size_t size, const char *, int) { return grow(at_openssl, nullptr, size); }

void *openssl_realloc(void *block, size_t size, const char *, int) { return grow(at_openssl, block, size); }

void openssl_free(void *block, const char *, int) { std::free(block); }

}  // namespace

// json-c is linked with these names in place of malloc and its like: see CMakeLists.txt.
extern "C" {
void *json_malloc(size_t size);
void *json_calloc(size_t count, size_t size);
void *json_realloc(void *block, size_t size);
char *json_strdup(const char *text);

void *json_malloc(size_t size) { return grow(at_json, nullptr, size); }

void *json_calloc(size_t count, size_t size) {
    if (at_json.enter().fails) return nullptr;
    const support::Quiet quiet;
    return std::calloc(count, size);
}

void *json_realloc(void *block, size_t size) { return grow(at_json, block, size); }

char *json_strdup(const char *text) {
    const size_t size = std::strlen(text) + 1;
    void *const copy = grow(at_json, nullptr, size);
    return copy ? static_cast<char *>(std::memcpy(copy, text, size)) : nullptr;
}
}

namespace torture {

void watch_third_parties() {
    at_openssl.list();
    at_json.list();
    if (CRYPTO_set_mem_functions(openssl_malloc, openssl_realloc, openssl_free) != 1)
        throw std::logic_error("OpenSSL has allocated already");
}

}  // namespace torture
