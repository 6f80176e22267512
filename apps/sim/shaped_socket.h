// A TCP socket behind the network faults: what passes it is delayed, cut in pieces, held back or ended as the faults of
// its connection want. TLS runs above it. Without such faults it hands every call on to the socket.
//
// With faults, each direction has a queue of pieces, each with the time it is due, and a coroutine that moves them on.
// The program's side may be ahead of the wire then: a delay holds up the bytes and not their sender.
#pragma once

#include <memory>

#include "asio.h"
#include "fault_set.h"

namespace sim {

class ShapedSocket {
  public:
    using lowest_layer_type = tcp::socket::lowest_layer_type;
    using executor_type = tcp::socket::executor_type;

    // `faults` is not used any more after close and reset.
    ShapedSocket(tcp::socket socket, ConnectionFaults &faults);
    ~ShapedSocket();
    ShapedSocket(ShapedSocket &&) noexcept;
    ShapedSocket &operator=(ShapedSocket &&) = delete;

    executor_type get_executor() { return socket().get_executor(); }
    lowest_layer_type &lowest_layer() { return socket().lowest_layer(); }
    [[nodiscard]] tcp::socket &socket() const;

    template <class Buffers, class Token>
    auto async_read_some(const Buffers &buffers, Token &&token) {
        const auto start = [this](auto handler, const Buffers &into) {
            const asio::mutable_buffer first = *asio::buffer_sequence_begin(into);
            if (first.size() == 0 || !shapes(Direction::to_platform)) {
                socket().async_read_some(into, std::move(handler));
            } else {
                co_spawn(get_executor(), read(first), completion(std::move(handler)));
            }
        };
        return asio::async_initiate<Token, void(error_code, std::size_t)>(start, token, buffers);
    }

    template <class Buffers, class Token>
    auto async_write_some(const Buffers &buffers, Token &&token) {
        const auto start = [this](auto handler, const Buffers &from) {
            const asio::const_buffer first = *asio::buffer_sequence_begin(from);
            if (first.size() == 0 || !shapes(Direction::to_module)) {
                socket().async_write_some(from, std::move(handler));
            } else {
                co_spawn(get_executor(), write(first), completion(std::move(handler)));
            }
        };
        return asio::async_initiate<Token, void(error_code, std::size_t)>(start, token, buffers);
    }

    // set_stage says what the bytes from now on belong to.
    void set_stage(Stage stage);

    // poke makes what waits look at the faults again: one was switched on or off.
    void poke();

    // accepted holds the connection back as the faults at its accept want, until the module has sent something.
    awaitable<void> accepted();

    // end_sending ends the platform's direction once everything written is on the wire; slow_close delays it.
    // half_close does so at once, and what is written afterwards is dropped.
    awaitable<void> end_sending();
    void half_close();

    // close ends both directions; slow_close delays the end that the module sees, and not this one. reset ends it at
    // once, and the module sees a reset.
    void close();
    void reset();

  private:
    struct Result {
        error_code error;
        std::size_t size = 0;
    };
    class Impl;

    template <class Handler>
    static auto completion(Handler handler) {
        return [handler = std::move(handler)](const std::exception_ptr &failure, Result result) mutable {
            if (failure) result = {asio::error::no_memory, 0};  // nothing else is thrown there
            handler(result.error, result.size);
        };
    }

    [[nodiscard]] bool shapes(Direction direction) const;
    awaitable<Result> read(asio::mutable_buffer into);
    awaitable<Result> write(asio::const_buffer from);

    std::shared_ptr<Impl> impl_;
};

}  // namespace sim
