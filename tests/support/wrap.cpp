// The unit tests' linker turns every call of the functions below, in the library's objects and in the tests, into a
// call of __wrap_..., and gives the real function the name __real_... . The names stand in wrapped.txt for the linker.
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>
#include <openssl/bio.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>

#include "tests/support/clock.h"
#include "tests/support/fault.h"
#include "tests/support/resolver.h"

namespace {

template <class Result>
Result failed(long result) {
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        return static_cast<Result>(result);
    }
}

template <class Length>
Length cut(Length length, size_t at_most) {
    if (length < 0 || static_cast<size_t>(length) <= at_most) return length;
    return static_cast<Length>(at_most);
}

}  // namespace

#define POINT(name)                                          \
    constinit static support::WrapPoint at_##name = {#name}; \
    [[maybe_unused]] static const bool listed_##name = at_##name.list();

// A function whose calls a Fault can strike; else the real one.
#define WRAP(Result, name, parameters, arguments)                                        \
    POINT(name)                                                                          \
    extern "C" Result __real_##name parameters;                                          \
    extern "C" Result __wrap_##name parameters;                                          \
    extern "C" Result __wrap_##name parameters {                                         \
        const support::WrapPoint::Verdict verdict = at_##name.enter();                   \
        return verdict.fails ? failed<Result>(verdict.result) : __real_##name arguments; \
    }

// The same for one that moves `length` bytes: a Fault can make them fewer.
#define WRAP_BYTES(Result, name, parameters, length, arguments)        \
    POINT(name)                                                        \
    extern "C" Result __real_##name parameters;                        \
    extern "C" Result __wrap_##name parameters;                        \
    extern "C" Result __wrap_##name parameters {                       \
        const support::WrapPoint::Verdict verdict = at_##name.enter(); \
        if (verdict.fails) return failed<Result>(verdict.result);      \
        length = cut(length, verdict.at_most);                         \
        return __real_##name arguments;                                \
    }

// The same for one that gives `size` bytes of memory.
#define WRAP_ALLOC(Result, name, parameters, size, arguments)                                                     \
    POINT(name)                                                                                                   \
    extern "C" Result __real_##name parameters;                                                                   \
    extern "C" Result __wrap_##name parameters;                                                                   \
    extern "C" Result __wrap_##name parameters {                                                                  \
        const support::WrapPoint::Verdict verdict = at_##name.enter();                                            \
        if (verdict.fails || support::AllocLimit::strikes(size) || support::FailAlloc::strikes()) return nullptr; \
        return __real_##name arguments;                                                                           \
    }

// The same for one that has a fake: the fake answers while its owner lives.
#define WRAP_FAKED(Result, name, parameters, arguments, Owner, answer)        \
    POINT(name)                                                               \
    extern "C" Result __real_##name parameters;                               \
    extern "C" Result __wrap_##name parameters;                               \
    extern "C" Result __wrap_##name parameters {                              \
        const support::WrapPoint::Verdict verdict = at_##name.enter();        \
        if (verdict.fails) return failed<Result>(verdict.result);             \
        if (support::Owner *const owner = support::Owner::in_force()) answer; \
        return __real_##name arguments;                                       \
    }

// Memory
WRAP_ALLOC(void *, malloc, (size_t size), size, (size))
WRAP_ALLOC(void *, calloc, (size_t count, size_t size), count *size, (count, size))
WRAP_ALLOC(void *, realloc, (void *block, size_t size), size, (block, size))
WRAP_ALLOC(char *, strdup, (const char *text), strlen(text) + 1, (text))

// A C++ library that is linked as an archive has its calls wrapped as well; the tests' own memory does not fail.
#ifdef _LIBCPP_VERSION
void *operator new(size_t size) {
    if (void *const block = __real_malloc(size)) return block;
    throw std::bad_alloc();
}
void operator delete(void *block) noexcept { free(block); }
void operator delete(void *block, size_t) noexcept { free(block); }
#endif

// Time
POINT(sysinfo)
extern "C" int __real_sysinfo(struct sysinfo *info);
extern "C" int __wrap_sysinfo(struct sysinfo *info);
extern "C" int __wrap_sysinfo(struct sysinfo *info) {
    const support::WrapPoint::Verdict verdict = at_sysinfo.enter();
    if (verdict.fails) return static_cast<int>(verdict.result);
    const int result = __real_sysinfo(info);
    if (support::Clock *const clock = support::Clock::in_force()) clock->fill(info);
    return result;
}

WRAP_FAKED(int, clock_gettime, (clockid_t id, timespec *now), (id, now), Clock, if (owner->fill(id, now)) return 0)

WRAP_FAKED(int, gettimeofday, (timeval * now, void *zone), (now, zone), Clock, {
    owner->fill(now);
    return 0;
})

WRAP_FAKED(time_t, time, (time_t * out), (out), Clock, {
    if (out) *out = owner->time_of_day();
    return owner->time_of_day();
})

WRAP_FAKED(int, usleep, (useconds_t microseconds), (microseconds), Clock, {
    owner->sleep(microseconds);
    return 0;
})

WRAP_FAKED(int, setitimer, (int which, const itimerval *value, itimerval *old), (which, value, old), Clock, {
    owner->set_interval_timer(which, *value);
    return 0;
})

WRAP(tm *, gmtime_r, (const time_t *instant, tm *broken_down), (instant, broken_down))
WRAP(tm *, localtime_r, (const time_t *instant, tm *broken_down), (instant, broken_down))
WRAP(char *, asctime_r, (const tm *broken_down, char *text), (broken_down, text))

// Names
WRAP(const char *, inet_ntop, (int family, const void *address, char *text, socklen_t size),
     (family, address, text, size))
WRAP_FAKED(int, getaddrinfo, (const char *name, const char *service, const addrinfo *hints, addrinfo **list),
           (name, service, hints, list), Resolver, return owner->resolve(name, list))

POINT(freeaddrinfo)
extern "C" void __real_freeaddrinfo(addrinfo *list);
extern "C" void __wrap_freeaddrinfo(addrinfo *list);
extern "C" void __wrap_freeaddrinfo(addrinfo *list) {
    at_freeaddrinfo.enter();
    if (!support::Resolver::release(list)) __real_freeaddrinfo(list);
}

// Sockets and files
WRAP(int, socket, (int family, int type, int protocol), (family, type, protocol))
WRAP(int, connect, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
WRAP(int, setsockopt, (int fd, int level, int option, const void *value, socklen_t length),
     (fd, level, option, value, length))
WRAP(int, getsockopt, (int fd, int level, int option, void *value, socklen_t *length),
     (fd, level, option, value, length))
WRAP(int, close, (int fd), (fd))
WRAP(int, epoll_create, (int size), (size))
WRAP(int, epoll_create1, (int flags), (flags))
WRAP(int, epoll_ctl, (int epfd, int operation, int fd, epoll_event *event), (epfd, operation, fd, event))
WRAP(int, epoll_wait, (int epfd, epoll_event *events, int count, int timeout_ms), (epfd, events, count, timeout_ms))
WRAP_BYTES(ssize_t, send, (int fd, const void *data, size_t length, int flags), length, (fd, data, length, flags))
WRAP_BYTES(ssize_t, recv, (int fd, void *data, size_t length, int flags), length, (fd, data, length, flags))
WRAP(int, eventfd, (unsigned count, int flags), (count, flags))
WRAP(int, poll, (pollfd * fds, nfds_t count, int timeout_ms), (fds, count, timeout_ms))
WRAP_BYTES(ssize_t, read, (int fd, void *data, size_t length), length, (fd, data, length))
WRAP_BYTES(ssize_t, write, (int fd, const void *data, size_t length), length, (fd, data, length))
WRAP(FILE *, fopen, (const char *path, const char *mode), (path, mode))
WRAP(FILE *, popen, (const char *command, const char *mode), (command, mode))
WRAP(size_t, fread, (void *data, size_t size, size_t count, FILE *file), (data, size, count, file))
WRAP(int, fputs, (const char *text, FILE *file), (text, file))
WRAP(int, setvbuf, (FILE * file, char *buffer, int mode, size_t size), (file, buffer, mode, size))
WRAP(int, remove, (const char *path), (path))
WRAP(int, vsnprintf, (char *text, size_t size, const char *format, va_list args), (text, size, format, args))
#ifdef __GLIBC__
// What glibc's checked calls make of it in an optimised build: the same point.
extern "C" int __real___vsnprintf_chk(char *text, size_t size, int flag, size_t room, const char *format, va_list args);
extern "C" int __wrap___vsnprintf_chk(char *text, size_t size, int flag, size_t room, const char *format, va_list args);
extern "C" int __wrap___vsnprintf_chk(char *text, size_t size, int flag, size_t room, const char *format,
                                      va_list args) {
    const support::WrapPoint::Verdict verdict = at_vsnprintf.enter();
    return verdict.fails ? static_cast<int>(verdict.result)
                         : __real___vsnprintf_chk(text, size, flag, room, format, args);
}
#endif

POINT(ioctl)
extern "C" int __real_ioctl(int fd, unsigned long request, ...);
extern "C" int __wrap_ioctl(int fd, unsigned long request, ...);
extern "C" int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void *const value = va_arg(args, void *);
    va_end(args);
    const support::WrapPoint::Verdict verdict = at_ioctl.enter();
    return verdict.fails ? static_cast<int>(verdict.result) : __real_ioctl(fd, request, value);
}

// Chance
WRAP_BYTES(ssize_t, getrandom, (void *data, size_t length, unsigned flags), length, (data, length, flags))
WRAP(int, rand, (), ())
POINT(srand)
extern "C" void __real_srand(unsigned seed);
extern "C" void __wrap_srand(unsigned seed);
extern "C" void __wrap_srand(unsigned seed) {
    at_srand.enter();
    __real_srand(seed);
}

// OpenSSL and json-c
WRAP(SSL_CTX *, SSL_CTX_new, (const SSL_METHOD *method), (method))
WRAP(const SSL_METHOD *, TLS_client_method, (), ())
WRAP(int, OPENSSL_init_ssl, (uint64_t options, const OPENSSL_INIT_SETTINGS *settings), (options, settings))
WRAP(long, SSL_CTX_ctrl, (SSL_CTX * context, int command, long number, void *pointer),
     (context, command, number, pointer))
WRAP(SSL *, SSL_new, (SSL_CTX * context), (context))
WRAP(int, SSL_set_fd, (SSL * ssl, int fd), (ssl, fd))
WRAP(int, SSL_connect, (SSL * ssl), (ssl))
WRAP(int, SSL_shutdown, (SSL * ssl), (ssl))
WRAP(int, SSL_get_error, (const SSL *ssl, int result), (ssl, result))
WRAP_BYTES(int, SSL_read, (SSL * ssl, void *data, int length), length, (ssl, data, length))
WRAP_BYTES(int, SSL_write, (SSL * ssl, const void *data, int length), length, (ssl, data, length))
WRAP(int, SHA1_Init, (SHA_CTX * state), (state))
WRAP(int, SHA1_Update, (SHA_CTX * state, const void *data, size_t length), (state, data, length))
WRAP(int, SHA1_Final, (unsigned char *digest, SHA_CTX *state), (digest, state))
WRAP(BIO *, BIO_new, (const BIO_METHOD *method), (method))
WRAP(BIO *, BIO_new_mem_buf, (const void *data, int length), (data, length))
WRAP_BYTES(int, BIO_write, (BIO * bio, const void *data, int length), length, (bio, data, length))
WRAP_BYTES(int, BIO_read, (BIO * bio, void *data, int length), length, (bio, data, length))
WRAP(long, BIO_ctrl, (BIO * bio, int command, long number, void *pointer), (bio, command, number, pointer))
WRAP(json_object *, json_object_new_object, (), ())
WRAP(json_object *, json_object_new_int, (int32_t number), (number))
WRAP(json_object *, json_object_new_string, (const char *text), (text))
WRAP(int, json_object_object_add, (json_object * object, const char *key, json_object *value), (object, key, value))
WRAP(const char *, json_object_to_json_string_ext, (json_object * object, int flags), (object, flags))
WRAP(json_object *, json_tokener_parse, (const char *text), (text))
