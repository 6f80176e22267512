#include "common/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>

#include "common/text.h"

namespace common {
namespace {

constexpr long kWatchdogMax_us = 365L * 24 * 60 * 60 * 1000000;  // a longer time is none

std::string_view variable(const char *name) {
    const char *value = std::getenv(name);
    return value ? value : "";
}

// connect_to returns a socket that is connected to `name`, a path or, behind an '@', an abstract name; or -1.
int connect_to(std::string_view name) {
    sockaddr_un address = {};
    if (name.empty() || (name[0] != '/' && name[0] != '@') || name.size() >= sizeof address.sun_path) return -1;
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path);
    if (name[0] == '@') address.sun_path[0] = '\0';
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), size) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The variables are inherited: a time that is meant for another process is not ours.
std::chrono::microseconds watchdog_time() {
    const std::string_view pid = variable("WATCHDOG_PID");
    if (!pid.empty() && parse_number(pid, 1, INT_MAX) != getpid()) return std::chrono::microseconds(0);
    return std::chrono::microseconds(parse_number(variable("WATCHDOG_USEC"), 1, kWatchdogMax_us).value_or(0));
}

}  // namespace

ServiceManager::ServiceManager() : socket_(connect_to(variable("NOTIFY_SOCKET"))), watchdog_(watchdog_time()) {}

ServiceManager::~ServiceManager() {
    if (socket_ >= 0) close(socket_);
}

void ServiceManager::status(std::string_view text) {
    if (text == status_) return;
    status_ = text;
    send("STATUS=" + status_);
}

void ServiceManager::alive(Clock::time_point now) {
    if (watchdog_.count() == 0 || now < alive_due_) return;
    alive_due_ = now + watchdog_ / 2;
    send("WATCHDOG=1");
}

// Waits when the manager is behind with its datagrams, as it does for every service: a lost "READY=1" would end the
// start of this one.
void ServiceManager::send(std::string_view lines) const {
    if (socket_ >= 0) ::send(socket_, lines.data(), lines.size(), MSG_NOSIGNAL);
}

}  // namespace common
