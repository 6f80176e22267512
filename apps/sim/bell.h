// A bell wakes the one coroutine that waits for it. Everything runs on one thread, so a waiter tests its condition,
// sleeps on the bell and tests again: nothing can ring between the test and the sleep.
#pragma once

#include "asio.h"

namespace sim {

class Bell {
  public:
    explicit Bell(asio::io_context &io) : timer_(io) {}

    void ring() { timer_.cancel(); }

    // wait_until returns when the bell rings or the time has come, whichever is first.
    awaitable<void> wait_until(Clock::time_point when) {
        timer_.expires_at(when);
        error_code ignored;  // a ring arrives as operation_aborted
        co_await timer_.async_wait(asio::redirect_error(use_awaitable, ignored));
    }

    awaitable<void> wait() { return wait_until(Clock::time_point::max()); }

  private:
    asio::steady_timer timer_;
};

}  // namespace sim
