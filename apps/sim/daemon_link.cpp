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

DaemonLink::DaemonLink(asio::io_context &io, const EventStream &events, Condition &changed, const DaemonPolicy &policy,
                       Socket socket, int id)
    : io_(io),
      events_(events),
      changed_(changed),
      policy_(policy),
      socket_(std::move(socket)),
      outbox_(io, changed),
      pending_changed_(io),
      id_(id) {}

void DaemonLink::emit(Kind kind, const std::string &model, std::initializer_list<Field> fields,
                      std::string_view cause) const {
    events_.emit({.kind = kind, .source = Source::link, .id = id_, .model = model, .fields = fields, .cause = cause});
}

bool DaemonLink::has(const std::string &model) const {
    return model.empty() ? !models_.empty() : std::ranges::find(models_, model) != models_.end();
}

awaitable<void> DaemonLink::run() {
    emit(Kind::link_opened);
    const auto self = shared_from_this();
    co_spawn(
        io_,
        [self]() -> awaitable<void> {
            try {
                co_await self->outbox_.run([&](const std::string &bytes) -> awaitable<void> {
                    self->emit(Kind::link_bytes_sent, {}, {{"bytes", Bytes{bytes}}});
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
    emit(Kind::link_ended, {}, {}, why);
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
        emit(Kind::link_bytes_received, {}, {{"bytes", Bytes{{area.data(), size}}}});
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
    emit(Kind::record_received, model, {{"type", "registration"}, {"payload", Bytes{bytes_of(registration)}}});
    emit(Kind::module_registered, model, {{"sub_name", Bytes{field_text(registration.sub_name)}}});
    if (const std::string again = field_text(registration.name_again); model != again) {
        emit(Kind::module_check_failed, model, {{"second_name", Bytes{again}}});
    }
    post(bytes_of(WireReply{}), "reply", model);
    last_traffic_ = Clock::now();

    // The library registers all its modules again with each new one; only the first time counts.
    if (!model.empty() && has(model)) return;
    models_.push_back(model);
    changed_.notify();
    const auto &served = policy_.models;
    const bool known = served.empty() || std::ranges::find(served, model) != served.end();
    if (!known)
        emit(Kind::module_not_served, model);
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
            const Field notice("notice", notice_name(next.notice));
            post(encode(next), notice_name(next.notice), next.model);
            last_traffic_ = Clock::now();
            const TunnelData &data = policy_.tunnel_data;
            if (next.notice == Notice::tunnel_data) {
                emit(Kind::notice_sent, next.model,
                     {notice, {"host", data.host}, {"port", data.port_of(next.model)}, {"path", data.path}});
            } else {
                emit(Kind::notice_sent, next.model, {notice});
            }
        }
    }
}

void DaemonLink::post(std::string record, std::string_view type, const std::string &model) {
    emit(Kind::record_sent, model, {{"type", type}, {"payload", Bytes{record}}});
    outbox_.post(std::move(record));
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
        out.port = tunnel_data.port_of(pending.model);
        out.last_down_reason = tunnel_data.last_down.reason;
        out.last_down_error_code = tunnel_data.last_down.error_code;
        out.last_down_socket_errno = tunnel_data.last_down.socket_errno;
        put_text(out.cookie, tunnel_data.cookie);
        put_text(out.token, tunnel_data.token);
    }
    return bytes_of(out);
}

}  // namespace sim
