#include "daemon_link.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "text.h"

namespace sim {
namespace {

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

}  // namespace

std::string reason_of(const error_code &error) {
    if (error == asio::error::eof) return "closed by the module process";
    if (error == asio::error::operation_aborted) return "closed by the daemon";
    return cat("broken: ", error.message());
}

Clock::time_point notice_due(asio::local::stream_protocol::socket &socket, Clock::time_point last_traffic) {
    return last_traffic + (unread(socket.native_handle()) ? Clock::duration(kReadTime) : kQuiet);
}

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
                if (self->hangs_up_) self->close_now();
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
    ConnectionFaults &faults = faults_of(model);
    if (const auto *away = faults.find(FaultKind::absence, Stage::accept)) {
        return policy_.go_away(std::chrono::milliseconds(away->fault.values[0]));
    }
    if (faults.find(FaultKind::no_reply, Stage::accept)) return;
    std::string reply = bytes_of(WireReply{});
    const bool merged = faults.find(FaultKind::merge_records, Stage::accept) && is_served(model) && !has(model);
    if (merged) reply += encode({.model = model, .notice = Notice::tunnel_data});
    post(std::move(reply), merged ? "reply and tunnel data" : "reply", model);
    last_traffic_ = Clock::now();

    // The library registers all its modules again with each new one; only the first time counts.
    if (!model.empty() && has(model)) return;
    models_.push_back(model);
    changed_.notify();
    if (!is_served(model))
        emit(Kind::module_not_served, model);
    else if (policy_.announce && !merged)
        notify(model, Notice::tunnel_data);
}

bool DaemonLink::is_served(const std::string &model) const {
    return policy_.models.empty() || std::ranges::find(policy_.models, model) != policy_.models.end();
}

ConnectionFaults &DaemonLink::faults_of(const std::string &model) {
    const auto applied = [this, model](const Fault &fault) {
        emit(Kind::fault_applied, model, {{"fault", Bytes{show_fault(fault)}}});
    };
    return faults_.try_emplace(model, policy_.faults, id_, model, applied).first->second;
}

void DaemonLink::notify(const std::string &model, Notice notice) {
    pending_.push_back({model, notice});
    pending_changed_.notify();
}

awaitable<void> DaemonLink::send_notifications() {
    const auto self = shared_from_this();
    while (!ended_) {
        const auto due = notice_due(socket_, last_traffic_);
        if (pending_.empty()) {
            co_await pending_changed_.wait();
        } else if (Clock::now() < due) {
            co_await pending_changed_.wait_until(std::min(due, Clock::now() + kQuiet));
        } else {
            const Pending next = pending_.front();
            pending_.pop_front();
            co_await send(next);
        }
    }
}

awaitable<void> DaemonLink::send(const Pending &pending) {
    const Field notice("notice", notice_name(pending.notice));
    ConnectionFaults &faults = faults_of(pending.model);
    std::string record = encode(pending);
    if (const auto *cut = faults.find(FaultKind::cut_record, Stage::accept)) {
        post(record.substr(0, static_cast<std::size_t>(cut->fault.values[0])), notice_name(pending.notice),
             pending.model);
        asio::steady_timer pause(io_, std::chrono::milliseconds(cut->fault.values[1]));
        co_await pause.async_wait(use_awaitable);
        hangs_up_ = true;
        outbox_.close();
        co_return;
    }
    if (const auto *split = faults.find(FaultKind::split_record, Stage::accept)) {
        const auto first = static_cast<std::size_t>(split->fault.values[0]);
        post(record.substr(0, first), notice_name(pending.notice), pending.model);
        record.erase(0, first);
        asio::steady_timer pause(io_, std::chrono::milliseconds(split->fault.values[1]));
        co_await pause.async_wait(use_awaitable);
        if (ended_) co_return;
    }
    post(std::move(record), notice_name(pending.notice), pending.model);
    last_traffic_ = Clock::now();
    if (pending.notice == Notice::tunnel_data) {
        const TunnelData data = data_for(pending);
        emit(Kind::notice_sent, pending.model, {notice, {"host", data.host}, {"port", data.port}, {"path", data.path}});
        repeat(pending);
    } else {
        emit(Kind::notice_sent, pending.model, {notice});
    }
}

// repeat queues the tunnel data again, as long as a fault wants it.
void DaemonLink::repeat(const Pending &pending) {
    const auto *again = faults_of(pending.model).find(FaultKind::repeat, Stage::accept);
    if (!again || pending.repetition >= again->fault.values[0]) return;
    auto timer = std::make_shared<asio::steady_timer>(io_, std::chrono::milliseconds(again->fault.values[1]));
    timer->async_wait([self = shared_from_this(), timer, next = pending](error_code) mutable {
        if (self->ended_) return;
        next.repetition++;
        self->pending_.push_back(next);
        self->pending_changed_.notify();
    });
}

// data_for is the tunnel data as the faults want it.
TunnelData DaemonLink::data_for(const Pending &pending) {
    TunnelData out = policy_.tunnel_data;
    out.port = out.port_of(pending.model);
    ConnectionFaults &faults = faults_of(pending.model);
    const auto *again = faults.find(FaultKind::repeat, Stage::accept);
    if (again && pending.repetition > 0) {
        const std::string_view change = again->fault.word(2);
        if (change == "port") out.port = static_cast<std::uint16_t>(out.port + pending.repetition);
        if (change == "host") out.host = cat("127.0.1.", pending.repetition % 250 + 1);
        if (change == "path") out.path += cat("/", pending.repetition);
        if (change == "token") out.token += cat("-", pending.repetition);
    }
    if (const auto *port = faults.find(FaultKind::other_port, Stage::accept)) {
        out.port = static_cast<std::uint16_t>(port->fault.values[0]);
    }
    if (const auto *host = faults.find(FaultKind::other_host, Stage::accept)) out.host = host->fault.text;
    return out;
}

void DaemonLink::post(std::string record, std::string_view type, const std::string &model) {
    emit(Kind::record_sent, model, {{"type", type}, {"payload", Bytes{record}}});
    outbox_.post(std::move(record));
}

std::string DaemonLink::encode(const Pending &pending) {
    WireNotification out;
    ConnectionFaults &faults = faults_of(pending.model);
    out.header.notice = static_cast<std::uint32_t>(pending.notice);
    if (const auto *type = faults.find(FaultKind::record_type, Stage::accept)) {
        out.header.type = static_cast<std::uint32_t>(type->fault.values[0]);
    }
    if (const auto *notice = faults.find(FaultKind::notice_type, Stage::accept)) {
        out.header.notice = static_cast<std::uint32_t>(notice->fault.values[0]);
    }
    put_text(out.model, pending.model);
    if (pending.notice == Notice::tunnel_data) {
        const TunnelData tunnel_data = data_for(pending);
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
