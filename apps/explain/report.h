// How the story is shown: as text for a person or as one JSON document.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "causes.h"
#include "clock.h"
#include "secrets.h"

namespace explain {

struct Event {
    enum class Kind { up, failed, ended, note };
    Kind kind = Kind::note;
    std::string tunnel = {};  // empty: it concerns the process and its daemon
    std::string what = {};    // without times, so that equal events are equal texts
    std::optional<Cause> cause = {};
    std::string sentence = {};         // the cause with what belongs to it
    std::optional<Moment> since = {};  // what the event ended: a set-up, an open tunnel
};

struct Outage {
    Moment from;
    Moment to;
    bool open = false;  // the log ends in it
};

struct Summary {
    std::string tunnel;
    std::uint64_t attempts = 0;
    std::uint64_t came_up = 0;
    bool is_up = false;
    std::array<std::uint64_t, kCauses> failed = {};  // set-ups, by cause
    std::array<std::uint64_t, kCauses> ended = {};   // open tunnels, by cause
    std::optional<Outage> longest;
};

// What the log consists of. Every line is counted in one of the last four numbers.
struct LogCounts {
    std::uint64_t lines = 0;
    std::uint64_t bytes = 0;
    std::uint64_t messages = 0;
    std::uint64_t continued = 0;  // further lines of messages: packet dumps, contents
    std::uint64_t empty = 0;
    std::uint64_t unknown = 0;
    std::uint64_t long_lines = 0;        // read in pieces
    std::uint64_t tunnels_left_out = 0;  // messages of tunnels beyond what the program keeps
    bool last_line_open = false;
};

class Report {
  public:
    explicit Report(const Secrets &secrets) : secrets_(secrets) {}
    virtual ~Report() = default;
    Report(const Report &) = delete;
    Report &operator=(const Report &) = delete;

    virtual void event(const Moment &at, const Event &event) = 0;
    // The last event of this kind and tunnel happened `times` more, last at `at`.
    virtual void repeated(const Moment &at, const Event &event, std::uint64_t times) = 0;
    virtual void summary(const Summary &summary) = 0;
    virtual void end(const LogCounts &counts) = 0;

  protected:
    // shown is the text as it may be printed: one line of ASCII without secrets.
    [[nodiscard]] std::string shown(std::string_view text) const;

  private:
    const Secrets &secrets_;
};

std::unique_ptr<Report> text_report(const Secrets &secrets);
std::unique_ptr<Report> json_report(const Secrets &secrets);

}  // namespace explain
