// The records on the wire between the daemon and a module process, in the host's byte order: both ends run on the same
// machine.
#pragma once

#include <cloudtunnel.h>

#include <cstddef>
#include <cstdint>

constexpr uint32_t kTypeRegistration = 1;           // module to daemon
constexpr uint32_t kTypeReserved = 2;               // accepted and ignored
constexpr uint32_t kTypeNotification = 0xBEBEBEBC;  // daemon to module

enum : uint32_t { kTunnelData = 1, kTunnelClosed = 2, kThirdKind = 3 };  // sub-types of a notification

struct WireHeader {
    uint32_t type;
    uint32_t unused1;  // zero
    uint32_t sub_type;
    uint32_t unused2;  // zero
};
static_assert(sizeof(WireHeader) == 16 && offsetof(WireHeader, sub_type) == 8);

constexpr size_t kWireName = 32;  // bytes of a name, its zero byte included

// A module, as the registration with the daemon names it.
struct WireModule {
    char name[kWireName];
    char same_name[kWireName];
    char sub_name[kWireName];
};

struct WireRegistration {
    WireHeader header;
    WireModule module;
};
static_assert(sizeof(WireRegistration) == 112);

struct WireNotification {
    WireHeader header;
    char model[kWireName];
    char url_host[128];
    char url_path[128];
    uint32_t tunnel_value;
    uint16_t port;
    uint16_t unused;
    CLOUDTUNNEL_MAIN_TUNNEL_INFO main_tunnel_info;
    char cookie[128];
    char token[128];
};
static_assert(offsetof(WireNotification, model) == 16 && offsetof(WireNotification, url_host) == 48 &&
              offsetof(WireNotification, url_path) == 176 && offsetof(WireNotification, tunnel_value) == 304 &&
              offsetof(WireNotification, port) == 308 && offsetof(WireNotification, main_tunnel_info) == 312 &&
              offsetof(WireNotification, cookie) == 452 && offsetof(WireNotification, token) == 580 &&
              sizeof(WireNotification) == 708);
