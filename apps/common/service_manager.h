// How a program notifies the service manager that started it: systemd's notification protocol, a datagram of lines
// "KEY=value" to the unix socket that NOTIFY_SOCKET names. Without that variable nothing is sent.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace common {

class ServiceManager {
  public:
    using Clock = std::chrono::steady_clock;

    // Reads NOTIFY_SOCKET, and the watchdog's time from WATCHDOG_USEC where WATCHDOG_PID is this process or not set.
    ServiceManager();
    ~ServiceManager();
    ServiceManager(const ServiceManager &) = delete;
    ServiceManager &operator=(const ServiceManager &) = delete;

    // ready ends the start of the service.
    void ready() const { send("READY=1"); }

    // stopping begins its end.
    void stopping() const { send("STOPPING=1"); }

    // status is a text for people. The same text again is not sent.
    void status(std::string_view text);

    // alive feeds the watchdog; a program calls it in each pass of its loop. Each half of the watchdog's time sends
    // one.
    void alive(Clock::time_point now);

    // alive_due is when the watchdog is to be fed again, the end of time without one.
    [[nodiscard]] Clock::time_point alive_due() const {
        return watchdog_.count() == 0 ? Clock::time_point::max() : alive_due_;
    }

  private:
    void send(std::string_view lines) const;

    int socket_ = -1;  // connected to the manager's
    std::string status_;
    std::chrono::microseconds watchdog_{0};  // 0: the manager has none
    Clock::time_point alive_due_ = Clock::time_point::min();
};

}  // namespace common
