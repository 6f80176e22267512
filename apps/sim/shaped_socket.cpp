#include "shaped_socket.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <string>

#include "condition.h"

namespace sim {
namespace {

constexpr std::size_t kQueueMax = 256 * 1024;  // what a direction holds back before its sender waits
constexpr std::size_t kReadSize = 16384;
constexpr long kSlicesPerSecond = 20;  // of a limited bandwidth

constexpr FaultKind kShaping[] = {FaultKind::latency, FaultKind::jitter,     FaultKind::bandwidth,
                                  FaultKind::slicer,  FaultKind::limit_data, FaultKind::timeout};

std::chrono::milliseconds milliseconds(long count) { return std::chrono::milliseconds(count); }

}  // namespace

class ShapedSocket::Impl {
  public:
    Impl(tcp::socket socket, ConnectionFaults &faults)
        : socket_(std::move(socket)),
          faults_(faults),
          to_module_(Direction::to_module, socket_.get_executor()),
          to_platform_(Direction::to_platform, socket_.get_executor()) {}

    tcp::socket &socket() { return socket_; }

    bool shapes(Direction direction);
    void set_stage(Stage stage) { stage_ = stage; }
    void poke();

    // The coroutines keep the object alive by their first argument.
    static awaitable<void> accepted(std::shared_ptr<Impl> self);
    static awaitable<Result> read(std::shared_ptr<Impl> self, asio::mutable_buffer into);
    static awaitable<Result> write(std::shared_ptr<Impl> self, asio::const_buffer from);
    static awaitable<void> flush(std::shared_ptr<Impl> self);
    static awaitable<void> end_sending(std::shared_ptr<Impl> self);

    void half_close();
    void close(const std::shared_ptr<Impl> &self);
    void reset();
    void abandon();

  private:
    struct Piece {
        std::string bytes;
        Clock::time_point due;
        Stage stage = Stage::accept;
        error_code end = {};  // the end of the stream, in place of bytes
    };

    struct Pipe {
        Pipe(Direction d, const tcp::socket::executor_type &executor)
            : direction(d), changed(executor), room(executor), emptied(executor) {}
        Direction direction;
        std::deque<Piece> queue;
        std::size_t size = 0;  // bytes in the queue
        bool running = false;  // its coroutine runs
        error_code failure = {};
        Clock::time_point last_due = {};
        Clock::time_point free_at = {};  // when the limited bandwidth has room again
        int limit = 0;                   // number of the limit that `passed` counts for
        long passed = 0;
        Condition changed;  // something was queued, or the faults are others
        Condition room;
        Condition emptied;
    };

    static awaitable<void> move_out(std::shared_ptr<Impl> self);
    static awaitable<void> move_in(std::shared_ptr<Impl> self);
    awaitable<bool> due(Pipe &pipe);
    void enqueue(Pipe &pipe, std::string_view bytes);
    std::chrono::milliseconds delay(const Pipe &pipe);
    std::size_t allowed(Pipe &pipe, const Piece &piece);
    void count(Pipe &pipe, const Piece &piece, std::size_t size);
    std::optional<Clock::time_point> slow_end();
    void end_now();

    tcp::socket socket_;
    ConnectionFaults &faults_;  // not used once closed_
    Pipe to_module_;
    Pipe to_platform_;
    Stage stage_ = Stage::accept;
    std::optional<Clock::time_point> slow_end_;  // when the end may be seen
    bool half_closed_ = false;
    bool closed_ = false;
};

bool ShapedSocket::Impl::shapes(Direction direction) {
    const Pipe &pipe = direction == Direction::to_module ? to_module_ : to_platform_;
    if (pipe.running || closed_) return true;
    if (direction == Direction::to_module && half_closed_) return true;
    if (faults_.none()) return false;
    return std::ranges::any_of(kShaping, [&](FaultKind kind) { return faults_.find(kind, stage_, direction); });
}

void ShapedSocket::Impl::poke() {
    for (Pipe *pipe : {&to_module_, &to_platform_}) {
        pipe->changed.notify();
        if (!closed_) continue;
        pipe->room.notify();
        pipe->emptied.notify();
    }
}

awaitable<void> ShapedSocket::Impl::accepted(std::shared_ptr<Impl> self) {
    Pipe &pipe = self->to_platform_;
    if (const auto *slow = self->faults_.find_at(FaultKind::latency, Stage::accept)) {
        const auto until = Clock::now() + milliseconds(slow->fault.values[0]);
        while (!self->closed_ && Clock::now() < until) co_await pipe.changed.wait_until(until);
    }
    while (!self->closed_ && self->faults_.find(FaultKind::timeout, Stage::accept)) co_await pipe.changed.wait();
    if (self->closed_) throw system_error(asio::error::operation_aborted);
    co_await self->socket_.async_wait(tcp::socket::wait_read, use_awaitable);
}

// Reading: what the module sends.

awaitable<ShapedSocket::Result> ShapedSocket::Impl::read(std::shared_ptr<Impl> self, asio::mutable_buffer into) {
    Pipe &pipe = self->to_platform_;
    if (!pipe.running && !self->closed_) {
        pipe.running = true;  // for good: its read may be under way when the faults are off again
        co_spawn(self->socket_.get_executor(), move_in(self), asio::detached);
    }
    const bool ready = co_await self->due(pipe);
    if (!ready) co_return Result{asio::error::operation_aborted};
    Piece &front = pipe.queue.front();
    if (front.end) co_return Result{front.end};  // it stays: every later read ends so too
    const std::size_t size = std::min(into.size(), self->allowed(pipe, front));
    std::memcpy(into.data(), front.bytes.data(), size);
    self->count(pipe, front, size);
    front.bytes.erase(0, size);
    if (front.bytes.empty()) pipe.queue.pop_front();
    pipe.size -= size;
    pipe.room.notify();
    co_return Result{{}, size};
}

awaitable<void> ShapedSocket::Impl::move_in(std::shared_ptr<Impl> self) {
    Pipe &pipe = self->to_platform_;
    std::array<char, kReadSize> area;
    while (!self->closed_) {
        if (pipe.size >= kQueueMax) {
            co_await pipe.room.wait();
            continue;
        }
        error_code error;
        const std::size_t size =
            co_await self->socket_.async_read_some(asio::buffer(area), asio::redirect_error(use_awaitable, error));
        if (self->closed_) co_return;
        if (error) {
            pipe.queue.push_back({.bytes = {},
                                  .due = std::max(pipe.last_due, Clock::now() + self->delay(pipe)),
                                  .stage = self->stage_,
                                  .end = error});
            pipe.changed.notify();
            co_return;
        }
        self->enqueue(pipe, {area.data(), size});
    }
}

// Writing: what the module gets.

awaitable<ShapedSocket::Result> ShapedSocket::Impl::write(std::shared_ptr<Impl> self, asio::const_buffer from) {
    Pipe &pipe = self->to_module_;
    while (pipe.size >= kQueueMax && !self->closed_ && !pipe.failure) co_await pipe.room.wait();
    if (self->closed_) co_return Result{asio::error::operation_aborted};
    if (pipe.failure) co_return Result{pipe.failure};
    if (self->half_closed_) co_return Result{{}, from.size()};
    self->enqueue(pipe, {static_cast<const char *>(from.data()), from.size()});
    if (!pipe.running) {
        pipe.running = true;
        co_spawn(self->socket_.get_executor(), move_out(self), asio::detached);
    }
    co_return Result{{}, from.size()};
}

awaitable<void> ShapedSocket::Impl::move_out(std::shared_ptr<Impl> self) {
    Pipe &pipe = self->to_module_;
    while (!pipe.queue.empty()) {
        const bool ready = co_await self->due(pipe);
        if (!ready || self->half_closed_) break;
        const Piece &front = pipe.queue.front();
        const std::size_t size = self->allowed(pipe, front);
        const auto bytes = asio::buffer(front.bytes.data(), size);
        error_code error;
        co_await asio::async_write(self->socket_, bytes, asio::redirect_error(use_awaitable, error));
        if (error) {
            pipe.failure = error;
            break;
        }
        if (!self->closed_) self->count(pipe, front, size);
        pipe.size -= front.bytes.size();
        pipe.queue.pop_front();
        pipe.room.notify();
    }
    pipe.queue.clear();
    pipe.size = 0;
    pipe.running = false;
    pipe.room.notify();
    pipe.emptied.notify();
}

awaitable<void> ShapedSocket::Impl::flush(std::shared_ptr<Impl> self) {
    while (self->to_module_.running && !self->closed_) co_await self->to_module_.emptied.wait();
}

// Both.

// due waits until the first piece of the queue may go on; false when the connection was closed meanwhile.
awaitable<bool> ShapedSocket::Impl::due(Pipe &pipe) {
    while (!closed_) {
        if (pipe.queue.empty()) {
            co_await pipe.changed.wait();
            continue;
        }
        const Stage stage = pipe.queue.front().stage;
        const auto when = pipe.queue.front().due;
        if (faults_.find(FaultKind::timeout, stage, pipe.direction)) {
            co_await pipe.changed.wait();
        } else if (Clock::now() < when) {
            co_await pipe.changed.wait_until(when);
        } else {
            co_return true;
        }
    }
    co_return false;
}

void ShapedSocket::Impl::enqueue(Pipe &pipe, std::string_view bytes) {
    const auto *slicer = faults_.find(FaultKind::slicer, stage_, pipe.direction);
    const auto *bandwidth = faults_.find(FaultKind::bandwidth, stage_, pipe.direction);
    const long rate = bandwidth ? bandwidth->fault.values[0] : 0;
    std::size_t most = bytes.size();
    if (slicer) most = std::min(most, static_cast<std::size_t>(slicer->fault.values[0]));
    if (rate != 0) most = std::min(most, static_cast<std::size_t>(std::max(rate / kSlicesPerSecond, 1L)));

    const auto earliest = Clock::now() + delay(pipe);
    while (!bytes.empty()) {
        const std::string_view slice = bytes.substr(0, most);
        bytes.remove_prefix(slice.size());
        auto due = std::max<Clock::time_point>(earliest, pipe.last_due);
        if (slicer) due = std::max<Clock::time_point>(due, pipe.last_due + milliseconds(slicer->fault.values[1]));
        if (rate != 0) {
            due = std::max(due, pipe.free_at);
            pipe.free_at = due + std::chrono::nanoseconds(1000000000L * static_cast<long>(slice.size()) / rate);
        }
        pipe.last_due = due;
        pipe.queue.push_back({.bytes = std::string(slice), .due = due, .stage = stage_});
        pipe.size += slice.size();
    }
    pipe.changed.notify();
}

std::chrono::milliseconds ShapedSocket::Impl::delay(const Pipe &pipe) {
    long out = 0;
    if (const auto *latency = faults_.find(FaultKind::latency, stage_, pipe.direction)) {
        const long around = latency->fault.values[1];
        out += latency->fault.values[0] - around + faults_.random(*latency, 2 * around);
    }
    if (const auto *jitter = faults_.find(FaultKind::jitter, stage_, pipe.direction)) {
        out += faults_.random(*jitter, jitter->fault.values[0]);
    }
    return milliseconds(std::max(out, 0L));
}

// allowed is how many bytes of the piece may pass.
std::size_t ShapedSocket::Impl::allowed(Pipe &pipe, const Piece &piece) {
    const auto *limit = faults_.find(FaultKind::limit_data, piece.stage, pipe.direction);
    if (!limit) return piece.bytes.size();
    if (pipe.limit != limit->number) {
        pipe.limit = limit->number;
        pipe.passed = 0;
    }
    return std::min(piece.bytes.size(), static_cast<std::size_t>(limit->fault.values[0] - pipe.passed));
}

// count adds bytes of the piece that have passed, and ends the connection when they were the last allowed ones.
void ShapedSocket::Impl::count(Pipe &pipe, const Piece &piece, std::size_t size) {
    const auto *limit = faults_.find(FaultKind::limit_data, piece.stage, pipe.direction);
    if (!limit || pipe.limit != limit->number) return;
    pipe.passed += static_cast<long>(size);
    if (pipe.passed >= limit->fault.values[0]) end_now();
}

// The end.

// slow_end is the time before which the module must not see the end, once it is begun.
std::optional<Clock::time_point> ShapedSocket::Impl::slow_end() {
    if (slow_end_ || closed_) return slow_end_;
    if (const auto *slow = faults_.find(FaultKind::slow_close, stage_)) {
        slow_end_ = Clock::now() + milliseconds(slow->fault.values[0]);
    }
    return slow_end_;
}

awaitable<void> ShapedSocket::Impl::end_sending(std::shared_ptr<Impl> self) {
    co_await flush(self);
    while (!self->closed_) {
        const auto until = self->slow_end();
        if (!until || Clock::now() >= *until) break;
        co_await self->to_module_.emptied.wait_until(*until);
    }
    error_code ignored;
    if (!self->closed_) self->socket_.shutdown(tcp::socket::shutdown_send, ignored);
}

void ShapedSocket::Impl::half_close() {
    if (half_closed_ || closed_) return;
    half_closed_ = true;
    error_code ignored;
    socket_.shutdown(tcp::socket::shutdown_send, ignored);
    poke();
}

// end_now sends the end of the stream behind the last byte; close follows when the tunnel has ended.
void ShapedSocket::Impl::end_now() {
    error_code ignored;
    socket_.shutdown(tcp::socket::shutdown_send, ignored);
    closed_ = true;
    socket_.cancel(ignored);
    poke();
}

void ShapedSocket::Impl::close(const std::shared_ptr<Impl> &self) {
    const auto until = slow_end();
    if (!until || Clock::now() >= *until) return abandon();
    if (closed_) return;
    closed_ = true;
    error_code ignored;
    socket_.cancel(ignored);
    poke();
    co_spawn(
        socket_.get_executor(),
        [self, until]() -> awaitable<void> {
            asio::steady_timer timer(self->socket_.get_executor(), *until);
            co_await timer.async_wait(use_awaitable);
            self->abandon();
        },
        asio::detached);
}

void ShapedSocket::Impl::reset() {
    error_code ignored;
    socket_.set_option(asio::socket_base::linger(true, 0), ignored);
    abandon();
}

void ShapedSocket::Impl::abandon() {
    closed_ = true;
    error_code ignored;
    socket_.close(ignored);
    poke();
}

ShapedSocket::ShapedSocket(tcp::socket socket, ConnectionFaults &faults)
    : impl_(std::make_shared<Impl>(std::move(socket), faults)) {}
ShapedSocket::~ShapedSocket() = default;
ShapedSocket::ShapedSocket(ShapedSocket &&) noexcept = default;

tcp::socket &ShapedSocket::socket() const { return impl_->socket(); }
bool ShapedSocket::shapes(Direction direction) const { return impl_->shapes(direction); }
void ShapedSocket::set_stage(Stage stage) { impl_->set_stage(stage); }
void ShapedSocket::poke() { impl_->poke(); }
awaitable<void> ShapedSocket::accepted() { return Impl::accepted(impl_); }
awaitable<void> ShapedSocket::end_sending() { return Impl::end_sending(impl_); }
awaitable<ShapedSocket::Result> ShapedSocket::read(asio::mutable_buffer into) { return Impl::read(impl_, into); }
awaitable<ShapedSocket::Result> ShapedSocket::write(asio::const_buffer from) { return Impl::write(impl_, from); }
void ShapedSocket::half_close() { impl_->half_close(); }
void ShapedSocket::close() { impl_->close(impl_); }
void ShapedSocket::reset() { impl_->reset(); }

}  // namespace sim
