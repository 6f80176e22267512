// The records on the daemon's unix socket. Both ends run on one machine, so numbers are in its own byte order.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim {

constexpr std::uint32_t kRegistrationType = 1;
constexpr std::uint32_t kNotificationType = 0xBEBEBEBC;

enum class Notice : std::uint32_t { tunnel_data = 1, closed = 2, third = 3 };

struct WireHeader {
    std::uint32_t type = 0;
    std::uint32_t zero1 = 0;
    std::uint32_t notice = 0;  // a Notice; 0 in the other records
    std::uint32_t zero2 = 0;
};

// Module to daemon. Texts are cut to 31 characters and end in a zero byte.
struct WireRegistration {
    WireHeader header;
    char name[32] = "";
    char name_again[32] = "";
    char sub_name[32] = "";
};

// Daemon to module, once for each registration. The library reads and discards it. At any other time it would take it
// for a message, whose type it ignores.
struct WireReply {
    WireHeader header = {.type = kRegistrationType};
    char zero[116] = "";
};

// Daemon to module. It has no length: the library takes everything that one read yields for one message.
struct WireNotification {
    WireHeader header = {.type = kNotificationType};
    char model[32] = "";
    // The rest is used with Notice::tunnel_data only.
    char host[128] = "";
    char path[128] = "";
    std::uint32_t tunnel_value = 0;
    std::uint16_t port = 0;
    std::uint16_t zero = 0;
    std::int32_t last_down_reason = 0;
    std::int32_t last_down_error_code = 0;
    std::int32_t last_down_socket_errno = 0;
    char main_tunnel[128] = "";
    char cookie[128] = "";
    char token[128] = "";
};

static_assert(sizeof(WireHeader) == 16 && offsetof(WireHeader, notice) == 8);
static_assert(sizeof(WireRegistration) == 112);
static_assert(offsetof(WireRegistration, name) == 16 && offsetof(WireRegistration, name_again) == 48 &&
              offsetof(WireRegistration, sub_name) == 80);
static_assert(sizeof(WireReply) == 132);
static_assert(sizeof(WireNotification) == 708);
static_assert(offsetof(WireNotification, model) == 16 && offsetof(WireNotification, host) == 48 &&
              offsetof(WireNotification, path) == 176 && offsetof(WireNotification, tunnel_value) == 304 &&
              offsetof(WireNotification, port) == 308 && offsetof(WireNotification, last_down_reason) == 312 &&
              offsetof(WireNotification, last_down_error_code) == 316 &&
              offsetof(WireNotification, last_down_socket_errno) == 320 && offsetof(WireNotification, cookie) == 452 &&
              offsetof(WireNotification, token) == 580);

}  // namespace sim
