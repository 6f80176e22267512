#include "tests/torture/calls.h"

#include <cerrno>
#include <cstdio>

#include <netdb.h>
#include <openssl/ssl.h>

namespace torture {
namespace {

const Failure kFailures[] = {
    {"malloc", "malloc", {}},
    {"calloc", "calloc", {}},
    {"realloc", "realloc", {}},
    {"strdup", "strdup", {}},
    {"json_alloc", "json_alloc", {.error = ENOMEM}, true},
    {"openssl_alloc", "openssl_alloc", {.error = ENOMEM}, true},

    {"socket", "socket", {.error = EMFILE}},
    {"connect/ECONNREFUSED", "connect", {.error = ECONNREFUSED}},
    {"connect/EINTR", "connect", {.error = EINTR}},
    {"setsockopt", "setsockopt", {.error = ENOMEM}},
    {"getsockopt", "getsockopt", {.error = ENOBUFS}},
    {"ioctl", "ioctl", {.error = ENOTTY}},
    {"inet_ntop", "inet_ntop", {.error = ENOSPC}},
    {"epoll_create", "epoll_create", {.error = EMFILE}},
    {"epoll_create1", "epoll_create1", {.error = EMFILE}},
    {"eventfd", "eventfd", {.error = EMFILE}},
    {"epoll_ctl", "epoll_ctl", {.error = ENOMEM}},
    {"epoll_wait", "epoll_wait", {.error = EINTR}},
    {"poll", "poll", {.error = EINTR}},
    {"read", "read", {.error = EAGAIN}},
    {"write", "write", {.error = EAGAIN}},
    {"getrandom/EAGAIN", "getrandom", {.error = EAGAIN}},
    {"getrandom/short", "getrandom", {.at_most = 1}},

    {"send/ECONNRESET", "send", {.error = ECONNRESET}},
    {"send/EINTR", "send", {.error = EINTR}},
    {"send/EAGAIN", "send", {.error = EAGAIN}},
    {"send/short", "send", {.at_most = 1}},
    {"recv/ECONNRESET", "recv", {.error = ECONNRESET}},
    {"recv/EINTR", "recv", {.error = EINTR}},
    {"recv/EAGAIN", "recv", {.error = EAGAIN}},
    {"recv/short", "recv", {.at_most = 1}},
    {"recv/end", "recv", {.result = 0}},

    {"getaddrinfo/EAI_AGAIN", "getaddrinfo", {.result = EAI_AGAIN}},
    {"getaddrinfo/EAI_MEMORY", "getaddrinfo", {.result = EAI_MEMORY}},
    {"getaddrinfo/empty", "getaddrinfo", {.result = 0}},

    {"clock_gettime", "clock_gettime", {.error = EINVAL}},
    {"sysinfo", "sysinfo", {.error = EFAULT}},
    {"gettimeofday", "gettimeofday", {.error = EFAULT}},
    {"time", "time", {.error = EFAULT}},
    {"gmtime_r", "gmtime_r", {.error = EOVERFLOW}},
    {"localtime_r", "localtime_r", {.error = EOVERFLOW}},
    {"asctime_r", "asctime_r", {.error = EOVERFLOW}},
    {"usleep", "usleep", {.error = EINTR}},
    {"setitimer", "setitimer", {.error = EINVAL}},

    {"fopen", "fopen", {.error = ENOSPC}},
    {"fputs", "fputs", {.result = EOF, .error = ENOSPC}},
    {"setvbuf", "setvbuf", {}},
    {"remove", "remove", {.error = EACCES}},
    {"popen", "popen", {.error = ENOMEM}},
    {"fread", "fread", {.result = 0, .error = EIO}},
    {"vsnprintf", "vsnprintf", {.error = EOVERFLOW}},

    {"OPENSSL_init_ssl", "OPENSSL_init_ssl", {.result = 0}},
    {"TLS_client_method", "TLS_client_method", {}},
    {"SSL_CTX_new", "SSL_CTX_new", {}},
    {"SSL_CTX_ctrl", "SSL_CTX_ctrl", {.result = 0}},
    {"SSL_new", "SSL_new", {}},
    {"SSL_set_fd", "SSL_set_fd", {.result = 0}},
    {"SSL_connect/-1", "SSL_connect", {}},
    {"SSL_connect/0", "SSL_connect", {.result = 0}},
    {"SSL_read/-1", "SSL_read", {}},
    {"SSL_read/0", "SSL_read", {.result = 0}},
    {"SSL_read/short", "SSL_read", {.at_most = 1}},
    {"SSL_write/-1", "SSL_write", {}},
    {"SSL_write/0", "SSL_write", {.result = 0}},
    {"SSL_write/short", "SSL_write", {.at_most = 1}},
    {"SSL_shutdown", "SSL_shutdown", {}},
    {"SSL_get_error/WANT_READ", "SSL_get_error", {.result = SSL_ERROR_WANT_READ}},
    {"SSL_get_error/WANT_WRITE", "SSL_get_error", {.result = SSL_ERROR_WANT_WRITE}},
    {"SSL_get_error/ZERO_RETURN", "SSL_get_error", {.result = SSL_ERROR_ZERO_RETURN}},
    {"SSL_get_error/SYSCALL", "SSL_get_error", {.result = SSL_ERROR_SYSCALL}},
    {"SSL_get_error/SSL", "SSL_get_error", {.result = SSL_ERROR_SSL}},
    {"SHA1_Init", "SHA1_Init", {.result = 0}},
    {"SHA1_Update", "SHA1_Update", {.result = 0}},
    {"SHA1_Final", "SHA1_Final", {.result = 0}},
    {"BIO_new", "BIO_new", {}},
    {"BIO_new_mem_buf", "BIO_new_mem_buf", {}},
    {"BIO_write", "BIO_write", {}},
    {"BIO_read", "BIO_read", {}},
    {"BIO_ctrl", "BIO_ctrl", {.result = 0}},

    {"json_object_new_object", "json_object_new_object", {}},
    {"json_object_new_int", "json_object_new_int", {}},
    {"json_object_new_string", "json_object_new_string", {}},
    {"json_object_to_json_string_ext", "json_object_to_json_string_ext", {}},
    {"json_tokener_parse", "json_tokener_parse", {}},
};

}  // namespace

std::span<const Failure> failures() { return kFailures; }

const Failure *find_failure(std::string_view name) {
    for (const Failure &failure : kFailures) {
        if (name == failure.name) return &failure;
    }
    return nullptr;
}

}  // namespace torture
