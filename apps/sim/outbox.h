// An outbox keeps writes on one stream in order: whoever has something to send posts it, one coroutine writes.
// It notifies `changed` when everything is written.
#pragma once

#include <deque>
#include <string>

#include "condition.h"

namespace sim {

class Outbox {
  public:
    Outbox(asio::io_context &io, Condition &changed) : queued_(io), changed_(changed) {}

    // post queues bytes that go out in a single write.
    void post(std::string bytes) {
        queue_.push_back(std::move(bytes));
        queued_.notify();
    }

    // close lets the writer end once everything queued is written.
    void close() {
        closed_ = true;
        queued_.notify();
    }

    [[nodiscard]] bool empty() const { return queue_.empty(); }

    // run writes until close; `write` is a coroutine of one text. An error of the stream comes out as its exception.
    template <class Write>
    awaitable<void> run(Write write) {
        for (;;) {
            while (queue_.empty() && !closed_) co_await queued_.wait();
            if (queue_.empty()) co_return;
            co_await write(queue_.front());
            queue_.pop_front();
            if (queue_.empty()) changed_.notify();
        }
    }

  private:
    Condition queued_;
    Condition &changed_;
    std::deque<std::string> queue_;  // the front stays in it until it is written
    bool closed_ = false;
};

}  // namespace sim
