#include "replay.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <tuple>

#include "common/program.h"
#include "text.h"
#include "upgrade.h"

namespace sim {
namespace {

constexpr auto kConnectTime = std::chrono::milliseconds(300);  // for a module to connect upon its tunnel data
constexpr auto kFinishTime = std::chrono::seconds(1);          // for the peer's TLS close alert

std::string handshake_key(const ModuleUnit &request) {
    return parse_upgrade(request.bytes).header("Sec-WebSocket-Key");
}

void replace_once(std::string &text, std::string_view from, std::string_view to) {
    if (from.empty()) return;
    if (const auto at = text.find(from); at != std::string::npos) text.replace(at, from.size(), to);
}

std::string_view name_of(ModuleBytes::Of of) { return of == ModuleBytes::Of::link ? "link" : "tunnel"; }

// A reply belongs to the registration before it; every other record waits for a moment of quiet.
bool is_reply(std::string_view bytes) {
    return bytes.size() >= sizeof kRegistrationType &&
           std::memcmp(bytes.data(), &kRegistrationType, sizeof kRegistrationType) == 0;
}

}  // namespace

// One connection of the module.
struct Replay::Peer {
    Peer(Simulator &simulator, int number, tcp::socket connection, asio::ssl::context *tls)
        : of(Of::tunnel),
          id(number),
          transport(std::in_place_type<Stream>, std::move(connection), tls, faults),
          in(of),
          outbox(simulator.io, simulator.changed),
          latest_end(simulator.io) {}
    Peer(Simulator &simulator, int number, DaemonLink::Socket connection)
        : of(Of::link),
          id(number),
          transport(std::move(connection)),
          in(of),
          outbox(simulator.io, simulator.changed),
          latest_end(simulator.io) {}

    Stream *stream() { return std::get_if<Stream>(&transport); }
    DaemonLink::Socket &socket() { return std::get<DaemonLink::Socket>(transport); }

    void close() {
        error_code ignored;
        if (stream()) {
            stream()->close();
        } else {
            socket().close(ignored);
        }
    }

    Of of;
    int id;
    FaultSet no_faults;
    ConnectionFaults faults{no_faults, id, "", [](const Fault &) {}};
    std::variant<Stream, DaemonLink::Socket> transport;
    ModuleBytes in;  // read and not yet compared
    Outbox outbox;
    asio::steady_timer latest_end;
    Clock::time_point last_traffic = Clock::now();
    std::string recorded_accept;  // the accept value of the recorded key, and of the key that came
    std::string accept;
    std::string ending;  // why it has ended
    bool ended = false;
};

// What the module has done otherwise than in the recording.
struct Replay::Differs : std::runtime_error {
    Differs(const Entry &entry, std::string_view what)
        : std::runtime_error(cat(name_of(entry.of), " ", entry.id, ": ", what)), line(entry.line), time(entry.time) {}
    std::size_t line;
    Clock::duration time;
};

Replay::Replay(Simulator &simulator, const Recording &recording, const Options &options)
    : simulator_(simulator),
      recording_(recording),
      recorded_pace_(options.replay_pace == ReplayPace::recorded),
      patience_(options.step_time) {
    for (const Entry &entry : recording.entries) {
        if (entry.act == Act::link_opens) links_to_come_++;
        if (entry.act == Act::tunnel_connects) tunnels_to_come_.push_back(entry.id);
        if (entry.act == Act::module_sends && entry.of == Of::link) first_records_.emplace(entry.id, entry.unit);
    }
    if (simulator.platform) {
        simulator.platform->take_with(
            [this](tcp::socket socket, asio::ssl::context *tls) { take_tunnel(std::move(socket), tls); });
    }
    if (simulator.daemon) {
        simulator.daemon->take_with([this](DaemonLink::Socket socket) { take_link(std::move(socket)); });
    }
}

awaitable<int> Replay::run() {
    std::string wrong;
    start_ = done_ = Clock::now();
    try {
        for (const Entry &entry : recording_.entries) {
            co_await play(entry);
            done_ = Clock::now();
            last_ = entry.time;
            start_ = std::max(start_, done_ - entry.time);
        }
        if (recording_.cut.empty()) nothing_left();
    } catch (const Differs &differs) {
        wrong = cat("the module differs from the recording at line ", differs.line, " (", seconds_of(differs.time),
                    " s), ", differs.what());
        simulator_.events.emit({.kind = Kind::replay_differs,
                                .source = Source::sim,
                                .fields = std::array{Field("line", differs.line)},
                                .cause = differs.what()});
    }
    running_ = false;
    co_await end_all();
    if (!wrong.empty()) {
        common::complain(kProgramName, wrong);
        co_return 1;
    }
    simulator_.events.emit(
        {.kind = Kind::replay_done, .source = Source::sim, .fields = std::array{Field("compared", compared_)}});
    if (!recording_.cut.empty()) {
        common::complain(kProgramName, recording_.cut);
        simulator_.events.emit({.kind = Kind::recording_cut, .source = Source::sim, .cause = recording_.cut});
    }
    co_return 0;
}

// Connections.

// A tunnel or link that is made after the last one of the recording is closed.
void Replay::take_tunnel(tcp::socket socket, asio::ssl::context *tls) {
    if (tunnels_to_come_.empty()) return;
    auto next = std::ranges::find_if(tunnels_to_come_, [this](int id) {
        const auto model = recording_.tunnel_models.find(id);
        return notified_model_.empty() || model == recording_.tunnel_models.end() || model->second == notified_model_;
    });
    if (next == tunnels_to_come_.end()) next = tunnels_to_come_.begin();
    const int id = *next;
    tunnels_to_come_.erase(next);
    notified_model_.clear();
    const auto peer = std::make_shared<Peer>(simulator_, id, std::move(socket), tls);
    peers_[{Of::tunnel, id}] = peer;
    emit(*peer, Kind::connected, {{"peer", peer->stream()->peer()}});
    co_spawn(simulator_.io, serve(peer), asio::detached);
    simulator_.changed.notify();
}

void Replay::take_link(DaemonLink::Socket socket) {
    if (links_to_come_ == new_links_.size()) return;
    const auto peer = std::make_shared<Peer>(simulator_, 0, std::move(socket));
    new_links_.push_back(peer);
    co_spawn(simulator_.io, serve(peer), asio::detached);
    simulator_.changed.notify();
}

// What a link has sent before it was identified has not been shown yet.
void Replay::bind_link(const Entry &entry, const std::shared_ptr<Peer> &peer) {
    const std::shared_ptr<Peer> link = peer;
    std::erase(new_links_, link);
    links_to_come_--;
    link->id = entry.id;
    peers_[{Of::link, entry.id}] = link;
    emit(*link, Kind::link_opened);
    const std::string &left = link->in.left();
    if (!left.empty()) emit(*link, Kind::link_bytes_received, {{"bytes", Bytes{left}}});
}

// link_like is the new link that begins as the recorded one does; the only one that is left needs not.
std::shared_ptr<Replay::Peer> Replay::link_like(const Entry &entry) const {
    if (new_links_.empty()) return nullptr;
    const auto recorded = first_records_.find(entry.id);
    if (links_to_come_ == 1 || recorded == first_records_.end()) return new_links_.front();
    for (const auto &link : new_links_) {
        ModuleBytes in = link->in;
        const auto first = in.next();
        if (first && difference(recorded->second, *first).empty()) return link;
    }
    return nullptr;
}

awaitable<void> Replay::serve(std::shared_ptr<Peer> peer) {
    std::array<char, 16384> area;
    std::string cause;
    try {
        if (peer->stream()) {
            const TlsSession session = co_await peer->stream()->handshake();
            emit(*peer, Kind::tls_established, {{"version", session.version}});
        }
        co_spawn(simulator_.io, write_queued(peer), asio::detached);
        for (;;) {
            std::string bytes;
            if (peer->stream()) {
                bytes = co_await peer->stream()->read();
            } else {
                const std::size_t size = co_await peer->socket().async_read_some(asio::buffer(area), use_awaitable);
                bytes.assign(area.data(), size);
            }
            if (peer->id != 0) {
                emit(*peer, peer->stream() ? Kind::bytes_received : Kind::link_bytes_received,
                     {{"bytes", Bytes{bytes}}});
            }
            peer->last_traffic = Clock::now();
            peer->in.add(bytes);
            simulator_.changed.notify();
        }
    } catch (const system_error &error) {
        cause = peer->stream() ? reason_of(error) : reason_of(error.code());
    }
    if (peer->ending.empty()) peer->ending = cause;
    peer->ended = true;
    peer->outbox.close();
    if (peer->id != 0) emit(*peer, peer->stream() ? Kind::tunnel_ended : Kind::link_ended, {}, peer->ending);
    peer->latest_end.cancel();
    peer->close();
    simulator_.changed.notify();
}

awaitable<void> Replay::write_queued(std::shared_ptr<Peer> peer) {
    try {
        co_await peer->outbox.run([&](const std::string &bytes) -> awaitable<void> {
            emit(*peer, peer->stream() ? Kind::bytes_sent : Kind::link_bytes_sent, {{"bytes", Bytes{bytes}}});
            peer->last_traffic = Clock::now();
            if (peer->stream()) {
                co_await peer->stream()->write(bytes);
            } else {
                co_await asio::async_write(peer->socket(), asio::buffer(bytes), use_awaitable);
            }
        });
        if (peer->stream() && !peer->ended) co_await peer->stream()->finish();
    } catch (const system_error &) {
        // The reader fails on the same connection and reports why.
    }
    if (!peer->stream()) peer->close();
}

// end lets what is queued go out, and then ends the connection in order.
void Replay::end(const std::shared_ptr<Peer> &peer) const {
    if (peer->ended) return;
    peer->ending = peer->stream() ? "connection closed by the platform" : "closed by the daemon";
    peer->outbox.close();
    peer->latest_end.expires_after(kFinishTime);
    peer->latest_end.async_wait([peer](error_code cancelled) {
        if (!cancelled) peer->close();
    });
}

awaitable<void> Replay::end_all() {
    for (const auto &[key, peer] : peers_) end(peer);
    const auto all_ended = [&] {
        return std::ranges::all_of(peers_, [](const auto &one) { return one.second->ended; });
    };
    const auto deadline = Clock::now() + 2 * kFinishTime;
    while (!all_ended() && Clock::now() < deadline) co_await simulator_.changed.wait_until(deadline);
}

const std::shared_ptr<Replay::Peer> &Replay::peer(const Entry &entry) const { return peers_.at({entry.of, entry.id}); }

void Replay::emit(const Peer &peer, Kind kind, std::initializer_list<Field> fields, std::string_view cause) const {
    const Source source = peer.of == Of::link ? Source::link : Source::tunnel;
    simulator_.events.emit({.kind = kind, .source = source, .id = peer.id, .fields = fields, .cause = cause});
}

void Replay::show(const Entry &entry, std::string_view what) const {
    emit(*peer(entry), Kind::replayed, {{"line", entry.line}, {"what", what}});
}

// Entries.

awaitable<void> Replay::play(const Entry &entry) {
    switch (entry.act) {
        case Act::daemon_starts:
            co_await pass_time(entry);
            if (!simulator_.daemon->running()) simulator_.daemon->start();
            co_return;
        case Act::daemon_stops:
            co_await pass_time(entry);
            simulator_.daemon->stop();
            co_return;
        case Act::link_opens:
            co_await wait_for_link(entry);
            co_return;
        case Act::tunnel_connects:
            co_await wait_for_tunnel(entry);
            co_return;
        case Act::module_sends:
            co_await wait_for_unit(entry);
            co_return;
        case Act::simulator_sends:
            co_await send(entry);
            co_return;
        case Act::module_ends:
            co_await wait_for_end(entry);
            co_return;
        case Act::simulator_ends:
            co_await pass_time(entry);
            nothing_left(entry, *peer(entry));
            end(peer(entry));
            co_return;
        case Act::simulator_resets:
            co_await pass_time(entry);
            nothing_left(entry, *peer(entry));
            co_await reset(entry);
            co_return;
    }
}

// pass_time waits as long as the recording did: since its beginning, or since the entry before this one.
awaitable<void> Replay::pass_time(const Entry &entry) {
    const auto due = recorded_pace_ ? start_ + entry.time : done_ + (entry.time - last_);
    while (Clock::now() < due) co_await simulator_.changed.wait_until(due);
}

// latest is how long the module may take: --timeout longer than in the recording.
Clock::time_point Replay::latest(const Entry &entry) const {
    return std::max(Clock::now(), start_ + entry.time) + patience_;
}

// A module may be started whenever one likes, so the first connection has all the time of the program.
awaitable<void> Replay::wait_for_link(const Entry &entry) {
    auto deadline = peers_.empty() ? Clock::time_point::max() : latest(entry);
    for (;;) {
        if (const auto link = link_like(entry)) {
            bind_link(entry, link);
            co_return;
        }
        if (!new_links_.empty()) deadline = std::min(deadline, latest(entry));
        if (Clock::now() >= deadline) break;
        co_await simulator_.changed.wait_until(deadline);
    }
    if (new_links_.empty()) throw Differs(entry, "expected to be opened, and the module does not");
    bind_link(entry, new_links_.front());  // its record says how it differs
}

awaitable<void> Replay::wait_for_tunnel(const Entry &entry) {
    const auto deadline = peers_.empty() ? Clock::time_point::max() : latest(entry);
    while (!peers_.contains({entry.of, entry.id})) {
        if (Clock::now() >= deadline) throw Differs(entry, "expected to be opened, and the module does not");
        co_await simulator_.changed.wait_until(deadline);
    }
}

awaitable<void> Replay::wait_for_unit(const Entry &entry) {
    const ModuleUnit recorded = wanted(entry);
    const Key key = recorded.frame.keyless ? Key::left_out : Key::follows;
    Peer &from = *peer(entry);
    const auto deadline = latest(entry);
    for (;;) {
        auto came = recorded.kind == ModuleUnit::Kind::raw ? from.in.take(recorded.bytes.size()) : from.in.next(key);
        const bool late = Clock::now() >= deadline;
        if (!came && (late || from.ended)) came = from.in.next(Key::left_out);
        if (came) {
            const std::string differs = difference(recorded, *came);
            if (!differs.empty()) throw Differs(entry, differs);
            learn_key(from, entry.unit, *came);
            compared_++;
            if (simulator_.events.wants(Kind::replayed)) show(entry, cat("as recorded: ", describe(*came)));
            co_return;
        }
        if (from.ended || late) {
            const std::string &left = from.in.left();
            const std::string part = left.empty() ? "nothing" : cat(left.size(), " bytes, '", printable(left, 60), "'");
            const std::string why = from.ended ? from.ending : cat("waited ", patience_.count(), " s longer than then");
            throw Differs(entry, cat("expected ", describe(recorded), ", came ", part, ": ", why));
        }
        co_await simulator_.changed.wait_until(deadline);
    }
}

awaitable<void> Replay::wait_for_end(const Entry &entry) {
    const Peer &from = *peer(entry);
    const auto deadline = latest(entry);
    while (!from.ended && from.in.left().empty()) {
        if (Clock::now() >= deadline) throw Differs(entry, "expected to be ended by the module, and it is not");
        co_await simulator_.changed.wait_until(deadline);
    }
    nothing_left(entry, from);
    if (simulator_.events.wants(Kind::replayed)) show(entry, "as recorded: the module has ended it");
}

// Whatever the module sends behind its last recorded unit is one too many.
void Replay::nothing_left(const Entry &entry, const Peer &peer) {
    ModuleBytes rest = peer.in;
    if (rest.left().empty()) return;
    auto unit = rest.next();
    if (!unit) unit = rest.take(rest.left().size());
    throw Differs(entry, cat("expected nothing more, came ", describe(*unit)));
}

// nothing_left does so at the end of a whole recording, for the connections whose end is not in it: the recording
// program ended before they did.
void Replay::nothing_left() const {
    for (const auto &[key, peer] : peers_) {
        const auto ends_it = [&key](const Entry &entry) {
            return std::pair(entry.of, entry.id) == key &&
                   (entry.act == Act::module_ends || entry.act == Act::simulator_ends ||
                    entry.act == Act::simulator_resets);
        };
        if (std::ranges::any_of(recording_.entries, ends_it)) continue;
        Entry last = recording_.entries.back();
        std::tie(last.of, last.id) = key;
        nothing_left(last, *peer);
    }
}

// On an ended connection a write is without effect, as in the recording. At the pace of answers only the notifications
// of a link take time.
awaitable<void> Replay::send(const Entry &entry) {
    if (recorded_pace_) co_await pass_time(entry);
    Peer &to = *peer(entry);
    std::string bytes = entry.bytes;
    if (to.stream()) {
        replace_once(bytes, to.recorded_accept, to.accept);
    } else {
        bytes = with_address(std::move(bytes));
        while (!is_reply(bytes) && !to.ended) {
            const auto due = notice_due(to.socket(), to.last_traffic);
            const auto now = Clock::now();
            if (now >= due && to.outbox.empty()) break;
            co_await simulator_.changed.wait_until(std::min(due, now + kQuiet));
        }
    }
    if (to.ended) co_return;
    if (simulator_.events.wants(Kind::replayed)) show(entry, cat("sent ", bytes.size(), " bytes"));
    to.outbox.post(std::move(bytes));
    co_await wait_for_notified();
}

// wait_for_notified lets the model that was notified connect before another one is.
awaitable<void> Replay::wait_for_notified() {
    const auto deadline = Clock::now() + kConnectTime;
    while (!notified_model_.empty() && !tunnels_to_come_.empty() && Clock::now() < deadline) {
        co_await simulator_.changed.wait_until(deadline);
    }
    notified_model_.clear();
}

// A reset discards what is not written, so that goes out first.
awaitable<void> Replay::reset(const Entry &entry) {
    const std::shared_ptr<Peer> to = peer(entry);
    const auto deadline = latest(entry);
    while (!to->ended && !to->outbox.empty() && Clock::now() < deadline) {
        co_await simulator_.changed.wait_until(deadline);
    }
    if (to->ended) co_return;
    to->ending = "connection reset by the platform";
    to->stream()->reset();
}

// What differs from run to run.

ModuleUnit Replay::wanted(const Entry &entry) const {
    ModuleUnit out = entry.unit;
    if (out.kind == ModuleUnit::Kind::request && !recorded_host_.empty()) {
        replace_once(out.bytes, cat("Host: ", recorded_host_, "\r\n"),
                     cat("Host: ", simulator_.tunnel_data.host, "\r\n"));
    }
    return out;
}

void Replay::learn_key(Peer &peer, const ModuleUnit &recorded, const ModuleUnit &came) const {
    if (recorded.kind != ModuleUnit::Kind::request) return;
    peer.recorded_accept = accept_for(handshake_key(recorded));
    peer.accept = accept_for(handshake_key(came));
}

// with_address puts this platform's host and port into the tunnel data that named the recorded one.
std::string Replay::with_address(std::string bytes) {
    if (!simulator_.platform) return bytes;
    for (std::size_t at = 0; at + sizeof(WireNotification) <= bytes.size(); at++) {
        WireNotification record;
        std::memcpy(&record, bytes.data() + at, sizeof record);
        if (record.header.type != kNotificationType ||
            record.header.notice != static_cast<std::uint32_t>(Notice::tunnel_data) ||
            !recording_.ports.contains(record.port)) {
            continue;
        }
        const std::string &host = simulator_.tunnel_data.host;
        recorded_host_.assign(record.host, strnlen(record.host, sizeof record.host));
        notified_model_.assign(record.model, strnlen(record.model, sizeof record.model));
        std::memset(record.host, 0, sizeof record.host);
        host.copy(record.host, sizeof record.host - 1);
        record.port = simulator_.tunnel_data.port;
        std::memcpy(bytes.data() + at, &record, sizeof record);
    }
    return bytes;
}

}  // namespace sim
