#include "tests/torture/third_party.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <sys/socket.h>

#include "tests/support/fault.h"
#include "tests/support/quiet.h"

namespace {

constinit support::WrapPoint at_openssl = {"openssl_alloc"};
constinit support::WrapPoint at_json = {"json_alloc"};

constexpr int kHandshakeSteps = 20;  // of both ends in turn; four do

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

bool openssl_shakes_hands(support::Wire wire) {
    const support::Quiet quiet;
    support::Server server(wire);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const support::Fd fd(::socket(AF_INET, SOCK_STREAM, 0));
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return false;
    support::set_nonblocking(fd.get());
    const std::unique_ptr<SSL_CTX, support::SslFree> context(SSL_CTX_new(TLS_client_method()));
    const std::unique_ptr<SSL, support::SslFree> client(context ? SSL_new(context.get()) : nullptr);
    if (!client || SSL_set_fd(client.get(), fd.get()) != 1) return false;
    for (int step = 0; step < kHandshakeSteps; ++step) {
        server.step();
        if (SSL_connect(client.get()) == 1) return true;
        ERR_clear_error();
    }
    return false;
}

}  // namespace torture
