#include "web_state.h"

#include <algorithm>

#include "common/websocket.h"
#include "text.h"
#include "text_reader.h"

namespace sim {
namespace {

constexpr std::size_t kEndedMax = 100;             // tunnels that are shown after their end
constexpr std::size_t kShownMax = 4096;            // bytes of one payload
constexpr std::size_t kShownOfTunnel = 256 << 10;  // bytes of all its payloads
constexpr std::size_t kTripsMax = 60;
constexpr std::size_t kPingsMax = 64;
constexpr std::size_t kLineEventMax = 512;  // bytes of a packed event that a line is kept as
constexpr std::size_t kReusedMax = 256;     // bytes of a payload whose memory is kept for the next
constexpr std::size_t kSpansMax = 60;

void drop_frame(WebTunnel &tunnel) {
    tunnel.shown_bytes -= tunnel.frames[0].shown.size();
    tunnel.frames.pop_front();
}

double ms(std::chrono::steady_clock::duration time) { return std::chrono::duration<double, std::milli>(time).count(); }

bool shown_in_timeline(const KindRow &row) { return !row.text.empty() && !row.asked_for; }

}  // namespace

WebState::WebState(EventStream &events, EventPacker &packer) : events_(events), packer_(packer) {
    KindSet frames;
    frames.add(Kind::frame_received);
    frames.add(Kind::frame_sent);
    KindSet others = kinds_where([](const KindRow &row) { return row.detail == Detail::states && !row.asked_for; });
    others.add(Kind::ping_sent);
    others.add(Kind::pong_received);
    subscriptions_ = {
        events.subscribe(kinds_where(shown_in_timeline), [this](const Event &event) { add_line(event); }),
        events.subscribe(frames, [this](const Event &event) { add_frame(event); }),
        events.subscribe(others, [this](const Event &event) { read(event); }),
    };
}

double WebState::now_ms() const { return ms(events_.now()); }

void WebState::read(const Event &event) {
    if (event.kind == Kind::notice_sent && event.field("host")) {
        const double now = ms(event.time);
        tunnel_data_.insert_or_assign(std::string(event.model), WebStep{"tunnel data", now, now, event_text(event)});
    }
    if (event.source != Source::tunnel) return;
    WebTunnel &tunnel = changed_by(event);
    switch (event.kind) {
        case Kind::tunnel_state:
            tunnel.state = event.text_of("to");
            tunnel.since_ms = ms(event.time);
            break;
        case Kind::tunnel_ended:
            end(event, tunnel);
            forget_oldest();
            break;
        case Kind::ping_sent:
            tunnel.pings_ms.emplace_back(event.bytes_of("payload"), ms(event.time));
            if (tunnel.pings_ms.size() > kPingsMax) tunnel.pings_ms.pop_front();
            break;
        case Kind::pong_received:
            add_trip(event, tunnel);
            break;
        default:
            set_up(event, tunnel);
    }
}

// changed_by is the tunnel of an event, with what every event says about it.
WebTunnel &WebState::changed_by(const Event &event) {
    WebTunnel &tunnel = tunnels_[event.id];
    tunnel.id = event.id;
    if (tunnel.model != event.model) tunnel.model = event.model;
    tunnel.changed = ++version_;
    return tunnel;
}

void WebState::add_trip(const Event &event, WebTunnel &tunnel) {
    const auto ping = std::ranges::find(tunnel.pings_ms, event.bytes_of("payload"),
                                        [](const auto &sent) { return std::string_view(sent.first); });
    if (ping == tunnel.pings_ms.end()) return;
    tunnel.trips_ms.push_back(ms(event.time) - ping->second);
    if (tunnel.trips_ms.size() > kTripsMax) tunnel.trips_ms.pop_front();
    tunnel.pings_ms.erase(ping);
}

// set_up extends the waterfall: each step begins where the one before ended.
void WebState::set_up(const Event &event, WebTunnel &tunnel) {
    const double now = ms(event.time);
    std::vector<WebStep> &steps = tunnel.steps;
    const auto begin = [&](std::string name) -> WebStep & {
        if (steps.empty() || steps.back().name != name) {
            steps.push_back({std::move(name), steps.empty() ? now : steps.back().end_ms, now, {}});
        }
        steps.back().end_ms = now;
        return steps.back();
    };
    const auto say = [&](WebStep &step, std::string_view text) {
        step.text += cat(step.text.empty() ? "" : "\n", text);
    };

    switch (event.kind) {
        case Kind::connected:
            tunnel.state = "connecting";
            tunnel.since_ms = now;
            say(begin("TCP"), event_text(event));
            break;
        case Kind::tls_established:
            say(begin("TLS"), event_text(event));
            break;
        case Kind::upgrade_received:
            say(begin("upgrade"), event.bytes_of("request"));
            break;
        case Kind::upgrade_answered:
            say(begin("upgrade"), event.bytes_of("response"));
            break;
        case Kind::registration_received: {
            say(begin("registration"), event.bytes_of("json"));
            // Which tunnel data led here is known only now that the tunnel has named its model.
            const auto data = tunnel_data_.find(event.model);
            if (data == tunnel_data_.end() || data->second.end_ms > steps.front().start_ms) break;
            steps.front().start_ms = data->second.end_ms;
            steps.insert(steps.begin(), std::move(data->second));
            tunnel_data_.erase(data);
            break;
        }
        case Kind::registration_answered:
            say(begin("registration"), event_text(event));
            break;
        case Kind::registration_accepted:
            tunnel.opened = true;
            totals_.made++;
            span().made++;
            say(begin("open"), event_text(event));
            break;
        default:
            if (tunnel.opened || steps.empty()) return;
            say(steps.back(), event_text(event));
            steps.back().end_ms = now;
    }
    tunnel.steps_changed = version_;
}

void WebState::end(const Event &event, WebTunnel &tunnel) {
    tunnel.state = "ended";
    tunnel.since_ms = ms(event.time);
    tunnel.cause = event.cause;
    ended_.push_back(event.id);
    if (tunnel.opened) return;
    totals_.failed++;
    span().failed++;
    if (tunnel.steps.empty()) return;
    tunnel.steps.push_back({"end", tunnel.steps.back().end_ms, tunnel.since_ms, tunnel.cause});
    tunnel.steps_changed = version_;
}

void WebState::forget_oldest() {
    while (ended_.size() > kEndedMax) {
        tunnels_.erase(ended_.front());
        ended_.pop_front();
    }
}

// The number and the model of a tunnel come with its other events.
void WebState::add_frame(const Event &event) {
    WebTunnel &tunnel = tunnels_[event.id];
    tunnel.changed = ++version_;
    const bool sent = event.kind == Kind::frame_sent;
    const bool fin = event.is_set("fin");
    const std::int64_t size = event.number_of("length");
    const auto opcode = static_cast<common::Opcode>(event.number_of("code"));
    WebTraffic &traffic = sent ? tunnel.sent : tunnel.received;
    if (opcode == common::Opcode::continuation || opcode == common::Opcode::text || opcode == common::Opcode::binary) {
        traffic.bytes += size;
        if (fin) traffic.messages++;
    }
    if (tunnel.frames.full()) drop_frame(tunnel);
    WebFrame &frame = tunnel.frames.push();
    if (frame.shown.capacity() > kReusedMax) frame.shown = {};
    frame.number = ++tunnel.frame_count;
    frame.time_ms = ms(event.time);
    frame.sent = sent;
    frame.code = static_cast<int>(opcode);
    frame.fin = fin;
    frame.size = size;
    frame.shown = event.bytes_of("payload").substr(0, kShownMax);
    tunnel.shown_bytes += frame.shown.size();
    while (tunnel.shown_bytes > kShownOfTunnel) drop_frame(tunnel);
}

void WebState::add_line(const Event &event) {
    const std::string_view packed = packer_.pack(event);
    const bool is_long = packed.size() > kLineEventMax;
    lines_.push(is_long ? std::string_view() : packed);
    while (!written_.empty() && written_.begin()->first + kLinesMax <= line_count()) written_.erase(written_.begin());
    if (is_long) written_[line_count()] = {ms(event.time), event_column(event), event_text(event)};
}

WebLine WebState::line(std::uint64_t number) const {
    if (const auto written = written_.find(number); written != written_.end()) return written->second;
    std::string_view packed = lines_.at(number - 1);
    std::vector<Field> fields;
    const Event event = packer_.unpack(packed, fields);
    return {ms(event.time), event_column(event), event_text(event)};
}

const std::deque<WebCounts> &WebState::history() {
    span();
    return history_;
}

// span is the count of the time that now is in.
WebCounts &WebState::span() {
    const double now = now_ms();
    while (span_end_ms_ <= now) {
        history_.push_back({});
        if (history_.size() > kSpansMax) history_.pop_front();
        span_end_ms_ += kSpanMs;
    }
    return history_.back();
}

}  // namespace sim
