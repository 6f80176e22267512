// What the pages show of tunnels, gathered from the stream of events: it is there before the first page opens, and
// stays for a while after a tunnel has ended.
//
// Every change takes the next number of one count. A page keeps the number up to which it has been shown, and gets
// what has a higher one.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "event_pack.h"
#include "event_stream.h"
#include "event_tail.h"
#include "ring.h"

namespace sim {

// A frame, with the front of its payload.
struct WebFrame {
    std::uint64_t number = 0;  // counts the frames of its tunnel from 1
    double time_ms = 0;
    bool sent = false;  // by the platform
    int code = 0;       // the opcode
    bool fin = true;
    std::int64_t size = 0;  // of the whole payload
    std::string shown;
};

// A part of a tunnel's set-up.
struct WebStep {
    std::string name;
    double start_ms = 0;
    double end_ms = 0;
    std::string text;  // what was exchanged
};

struct WebTraffic {
    std::uint64_t messages = 0;
    std::int64_t bytes = 0;
};

struct WebTunnel {
    int id = 0;
    std::string model;
    std::string state;
    double since_ms = 0;  // in that state
    WebTraffic sent;
    WebTraffic received;
    std::deque<double> trips_ms;  // the newest round trips
    std::string cause;            // of the end
    bool opened = false;
    std::vector<WebStep> steps;
    Ring<WebFrame> frames{500};       // the newest
    std::uint64_t frame_count = 0;    // of all
    std::uint64_t changed = 0;        // the number of its last change
    std::uint64_t steps_changed = 0;  // that of its set-up's

    std::size_t shown_bytes = 0;                          // in its frames
    std::deque<std::pair<std::string, double>> pings_ms;  // sent and not answered: body and time
};

// A line of the timeline.
struct WebLine {
    double time_ms = 0;
    std::string source;
    std::string text;
};

// Set-ups that succeeded and that failed in one span of time.
struct WebCounts {
    std::uint64_t made = 0;
    std::uint64_t failed = 0;
};

class WebState {
  public:
    // `packer` outlives the state.
    WebState(EventStream &events, EventPacker &packer);

    [[nodiscard]] const std::map<int, WebTunnel> &tunnels() const { return tunnels_; }
    [[nodiscard]] std::uint64_t version() const { return version_; }
    [[nodiscard]] double now_ms() const;

    // totals counts the whole run; history has a value for each span of kSpanMs, the newest last.
    [[nodiscard]] WebCounts totals() const { return totals_; }
    [[nodiscard]] const std::deque<WebCounts> &history();
    static constexpr double kSpanMs = 10000;

    // line_count is the number of lines that the timeline has had, lines_kept that of the newest, which it still has;
    // the first line of all has the number 1.
    [[nodiscard]] std::uint64_t line_count() const { return lines_.count(); }
    [[nodiscard]] std::uint64_t lines_kept() const { return std::min<std::uint64_t>(lines_.count(), kLinesMax); }
    [[nodiscard]] WebLine line(std::uint64_t number) const;

  private:
    static constexpr std::size_t kLinesMax = 5000;

    void add_line(const Event &event);
    void add_frame(const Event &event);
    void read(const Event &event);
    WebTunnel &changed_by(const Event &event);
    void add_trip(const Event &event, WebTunnel &tunnel);
    void set_up(const Event &event, WebTunnel &tunnel);
    void end(const Event &event, WebTunnel &tunnel);
    void forget_oldest();
    WebCounts &span();

    const EventStream &events_;
    std::map<int, WebTunnel> tunnels_;
    std::deque<int> ended_;                                    // the oldest first
    std::map<std::string, WebStep, std::less<>> tunnel_data_;  // the newest that the daemon sent, by model
    EventPacker &packer_;
    EventTail lines_{kLinesMax};                // a line is written when a page shows it: most are never shown
    std::map<std::uint64_t, WebLine> written_;  // by its number: in place of an event that takes much more room
    std::deque<WebCounts> history_ = {{}};
    double span_end_ms_ = kSpanMs;
    WebCounts totals_;
    std::uint64_t version_ = 0;
    std::array<Subscription, 3> subscriptions_;
};

}  // namespace sim
