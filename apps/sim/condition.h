// A condition variable for coroutines. Everything runs on one thread: a waiter tests its predicate, waits, and tests
// again, and no notification can come between the test and the wait. One coroutine at a time waits.
#pragma once

#include "asio.h"

namespace sim {

class Condition {
  public:
    explicit Condition(asio::io_context &io) : timer_(io) {}
    explicit Condition(const asio::any_io_executor &executor) : timer_(executor) {}

    void notify() { timer_.cancel(); }

    // wait_until returns on a notification or at `when`, whichever is first.
    awaitable<void> wait_until(Clock::time_point when) {
        timer_.expires_at(when);
        error_code ignored;  // a notification arrives as operation_aborted
        co_await timer_.async_wait(asio::redirect_error(use_awaitable, ignored));
    }

    awaitable<void> wait() { return wait_until(Clock::time_point::max()); }

  private:
    asio::steady_timer timer_;
};

}  // namespace sim
