#include "daemon_link.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "text.h"

namespace sim {
namespace {

// A module takes all that one read gives for one message. So a message waits for a moment of quiet, and until the one
// before has been read, but not for ever.
constexpr auto kQuiet = std::chrono::milliseconds(100);
constexpr auto kReadTime = std::chrono::seconds(2);

// unread returns whether the other end of a unix socket has bytes left to read.
bool unread(int fd) {
    int bytes = 0;
    return ::ioctl(fd, SIOCOUTQ, &bytes) == 0 && bytes > 0;
}

// A faulty client may leave out the zero byte at the end.
template <std::size_t N>
std::string field_text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

template <std::size_t N>
void put_text(char (&field)[N], const std::string &text) {
    text.copy(field, N - 1);  // the field was zeroed: its last byte ends the text
}

template <class Record>
std::string bytes_of(const Record &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}

const char *notice_name(Notice notice) {
    switch (notice) {
        case Notice::tunnel_data:
            return "tunnel data";
        case Notice::closed:
            return "closed notice";
        case Notice::third:
            return "third notice";
    }
    return "";
}

std::string reason_of(const error_code &error) {
    if (error == asio::error::eof) return "closed by the module process";
    if (error == asio::error::operation_aborted) return "closed by the daemon";
    return cat("broken: ", error.message());
}

}  // namespace

DaemonLink::DaemonLink(asio::io_context &io, const Timeline &timeline, Condition &changed, const DaemonPolicy &policy,
                       Socket socket, int id)
    : io_(io),
      timeline_(timeline),
      changed_(changed),
      policy_(policy),
      socket_(std::move(socket)),
      outbox_(io, changed),
      pending_changed_(io),
      id_(id) {}

void DaemonLink::log(std::string_view what) const { timeline_.log("daemon", what); }

bool DaemonLink::has(const std::string &model) const {
    return model.empty() ? !models_.empty() : std::ranges::find(models_, model) != models_.end();
}

std::string DaemonLink::describe() const {
    std::string names;
    for (const std::string &model : models_) names += cat(names.empty() ? "" : ", ", "'", model, "'");
    return cat("link ", id_, ": modules ", names.empty() ? "none" : names);
}

awaitable<void> DaemonLink::run() {
    log(cat("link ", id_, " opened by a module process"));
    const auto self = shared_from_this();
    co_spawn(
        io_,
        [self]() -> awaitable<void> {
            try {
                co_await self->outbox_.run([&](const std::string &bytes) -> awaitable<void> {
                    co_await asio::async_write(self->socket_, asio::buffer(bytes), use_awaitable);
                });
            } catch (const system_error &) {
                // The reader fails on the same link and reports why.
            }
        },
        asio::detached);
    co_spawn(
        io_, [self] { return self->send_notifications(); }, asio::detached);

    std::string why = "closed: no registration, the bytes are of another kind";
    try {
        co_await read_registrations();
    } catch (const system_error &error) {
        why = reason_of(error.code());
    }
    log(cat("link ", id_, " ", why));
    close_now();
}

void DaemonLink::close_now() {
    ended_ = true;
    pending_.clear();
    pending_changed_.notify();
    outbox_.close();
    error_code ignored;
    socket_.close(ignored);
    changed_.notify();
}

awaitable<void> DaemonLink::read_registrations() {
    std::string in;
    std::array<char, 4096> area;
    for (;;) {
        const std::size_t size = co_await socket_.async_read_some(asio::buffer(area), use_awaitable);
        in.append(area.data(), size);
        for (; in.size() >= sizeof(WireRegistration); in.erase(0, sizeof(WireRegistration))) {
            WireRegistration registration;
            std::memcpy(&registration, in.data(), sizeof registration);
            if (registration.header.type != kRegistrationType) co_return;
            on_registration(registration);
        }
    }
}

void DaemonLink::on_registration(const WireRegistration &registration) {
    const std::string model = field_text(registration.name);
    log(cat("module '", printable(model), "' registered (sub-name '", printable(field_text(registration.sub_name)),
            "')"));
    if (model != field_text(registration.name_again)) {
        log(cat("registration failed its check: the second name is '", printable(field_text(registration.name_again)),
                "'"));
    }
    outbox_.post(bytes_of(WireReply{}));
    last_traffic_ = Clock::now();

    // The library registers all its modules again with each new one; only the first time counts.
    if (!model.empty() && has(model)) return;
    models_.push_back(model);
    changed_.notify();
    const auto &served = policy_.models;
    const bool known = served.empty() || std::ranges::find(served, model) != served.end();
    if (!known)
        log(cat("module '", printable(model), "' is none of the models served here"));
    else if (policy_.announce)
        notify(model, Notice::tunnel_data);
}

void DaemonLink::notify(const std::string &model, Notice notice) {
    pending_.push_back({model, notice});
    pending_changed_.notify();
}

awaitable<void> DaemonLink::send_notifications() {
    const auto self = shared_from_this();
    while (!ended_) {
        const auto due = last_traffic_ + (unread(socket_.native_handle()) ? Clock::duration(kReadTime) : kQuiet);
        if (pending_.empty()) {
            co_await pending_changed_.wait();
        } else if (Clock::now() < due) {
            co_await pending_changed_.wait_until(std::min(due, Clock::now() + kQuiet));
        } else {
            const Pending next = pending_.front();
            pending_.pop_front();
            outbox_.post(encode(next));
            last_traffic_ = Clock::now();
            const TunnelData &tunnel_data = policy_.tunnel_data;
            const bool data = next.notice == Notice::tunnel_data;
            log(cat(notice_name(next.notice), " sent to module '", printable(next.model), "'",
                    data ? cat(": host ", tunnel_data.host, ", port ", tunnel_data.port, ", path ", tunnel_data.path)
                         : ""));
        }
    }
}

std::string DaemonLink::encode(const Pending &pending) const {
    WireNotification out;
    out.header.notice = static_cast<std::uint32_t>(pending.notice);
    put_text(out.model, pending.model);
    if (pending.notice == Notice::tunnel_data) {
        const TunnelData &tunnel_data = policy_.tunnel_data;
        put_text(out.host, tunnel_data.host);
        put_text(out.path, tunnel_data.path);
        out.tunnel_value = tunnel_data.tunnel_value;
        out.port = tunnel_data.port;
        out.last_down_reason = tunnel_data.last_down.reason;
        out.last_down_error_code = tunnel_data.last_down.error_code;
        out.last_down_socket_errno = tunnel_data.last_down.socket_errno;
        put_text(out.cookie, tunnel_data.cookie);
        put_text(out.token, tunnel_data.token);
    }
    return bytes_of(out);
}

}  // namespace sim
