// An outbox keeps writes on one stream in order: whoever has something to send posts it, one coroutine writes.
// When all is written it rings the desk's bell.
#pragma once

#include <deque>
#include <string>

#include "bell.h"

namespace sim {

class Outbox {
  public:
    Outbox(asio::io_context &io, Bell &desk_bell) : bell_(io), desk_bell_(desk_bell) {}

    // post queues bytes that go out in a single write.
    void post(std::string bytes) {
        queue_.push_back(std::move(bytes));
        bell_.ring();
    }

    // close lets the writer end once everything queued is written.
    void close() {
        closed_ = true;
        bell_.ring();
    }

    [[nodiscard]] bool empty() const { return queue_.empty(); }

    // run writes until close; `write` is a coroutine of one text. An error of the stream comes out as its exception.
    template <class Write>
    awaitable<void> run(Write write) {
        for (;;) {
            while (queue_.empty() && !closed_) co_await bell_.wait();
            if (queue_.empty()) co_return;
            co_await write(queue_.front());
            queue_.pop_front();
            if (queue_.empty()) desk_bell_.ring();
        }
    }

  private:
    Bell bell_;
    Bell &desk_bell_;
    std::deque<std::string> queue_;  // the front stays in it until it is written
    bool closed_ = false;
};

}  // namespace sim
