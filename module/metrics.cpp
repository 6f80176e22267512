// The counters in the OpenMetrics text format: a family after the other, in each a sample for each tunnel.
#include <cloudtunnel.h>
#include <cloudtunnel_module.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "process.h"
#include "totals.h"
#include "tunnel.h"

namespace ctm {
namespace {

// Writes into the caller's text as far as it goes, and counts on behind it.
class Text {
  public:
    Text(char *to, size_t size) : to_(to), size_(size) {}

    CLOUDTUNNEL_PRINTF(2, 3) void add(const char *format, ...) {
        va_list args;
        va_start(args, format);
        const size_t room = length_ < size_ ? size_ - length_ : 0;
        const int added = vsnprintf(room > 0 ? to_ + length_ : nullptr, room, format, args);
        va_end(args);
        if (added > 0) length_ += static_cast<size_t>(added);
    }

    [[nodiscard]] size_t length() const { return length_; }

  private:
    char *to_;
    size_t size_;
    size_t length_ = 0;
};

// A label's value: quote, backslash and line end are escaped.
struct Escaped {
    explicit Escaped(const char *value) {
        char *to = text;
        for (; *value; value++) {
            if (*value == '"' || *value == '\\' || *value == '\n') *to++ = '\\';
            *to++ = *value == '\n' ? 'n' : *value;
        }
        *to = '\0';
    }
    char text[2 * CTM_NAME_MAX + 1];
};

enum class Unit { count, bytes, microseconds };

struct Family {
    const char *name;
    const char *type;  // "counter" or "gauge"
    const char *help;
    Unit unit;
    uint64_t ctm_counters::*value;
};
constexpr Family kFamilies[] = {
    {"cloudtunnel_attempts", "counter", "Set-ups begun.", Unit::count, &ctm_counters::attempts},
    {"cloudtunnel_opened", "counter", "Set-ups that came up.", Unit::count, &ctm_counters::opened},
    {"cloudtunnel_messages_in", "counter", "Messages received.", Unit::count, &ctm_counters::messages_in},
    {"cloudtunnel_messages_out", "counter", "Messages sent.", Unit::count, &ctm_counters::messages_out},
    {"cloudtunnel_in_bytes", "counter", "Payload received.", Unit::bytes, &ctm_counters::bytes_in},
    {"cloudtunnel_out_bytes", "counter", "Payload sent.", Unit::bytes, &ctm_counters::bytes_out},
    {"cloudtunnel_pings", "counter", "Pings sent.", Unit::count, &ctm_counters::pings},
    {"cloudtunnel_pongs", "counter", "Pings answered.", Unit::count, &ctm_counters::pongs},
    {"cloudtunnel_refused", "counter", "Messages that the full queue refused.", Unit::count, &ctm_counters::refused},
    {"cloudtunnel_queue_messages", "gauge", "Messages in the queue.", Unit::count, &ctm_counters::queue_messages},
    {"cloudtunnel_queue_bytes", "gauge", "Payload in the queue.", Unit::bytes, &ctm_counters::queue_bytes},
    {"cloudtunnel_queue_most_bytes", "gauge", "The most that was in the queue.", Unit::bytes,
     &ctm_counters::queue_most},
    {"cloudtunnel_round_trip_last_seconds", "gauge", "Round trip of the last ping.", Unit::microseconds,
     &ctm_counters::round_trip_last_us},
    {"cloudtunnel_round_trip_smallest_seconds", "gauge", "The smallest round trip.", Unit::microseconds,
     &ctm_counters::round_trip_smallest_us},
    {"cloudtunnel_round_trip_mean_seconds", "gauge", "The mean round trip.", Unit::microseconds,
     &ctm_counters::round_trip_mean_us},
};

void add_head(Text &text, const char *name, const char *type, const char *unit, const char *help) {
    text.add("# TYPE %s %s\n", name, type);
    if (*unit) text.add("# UNIT %s %s\n", name, unit);
    text.add("# HELP %s %s\n", name, help);
}

// for_each calls `sample` with the counters of each tunnel and its model as a label's value.
template <typename Sample>
void for_each(Sample sample) {
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel) sample(row.tunnel, counters_of(row.tunnel), Escaped(row.model).text);
    }
}

void add_family(Text &text, const Family &family) {
    const char *unit = family.unit == Unit::bytes ? "bytes" : family.unit == Unit::microseconds ? "seconds" : "";
    const char *suffix = strcmp(family.type, "counter") == 0 ? "_total" : "";
    add_head(text, family.name, family.type, unit, family.help);
    for_each([&](const ctm_tunnel *, const ctm_counters &counters, const char *model) {
        const auto value = static_cast<unsigned long long>(counters.*family.value);
        text.add("%s%s{model=\"%s\"} ", family.name, suffix, model);
        if (family.unit == Unit::microseconds)
            text.add("%llu.%06llu\n", value / 1000000, value % 1000000);
        else
            text.add("%llu\n", value);
    });
}

void add_state(Text &text) {
    add_head(text, "cloudtunnel_state", "stateset", "", "The state of the tunnel.");
    for_each([&](const ctm_tunnel *tunnel, const ctm_counters &, const char *model) {
        for (int state = 0; state < CTM_STATES; state++)
            text.add("cloudtunnel_state{model=\"%s\",cloudtunnel_state=\"%s\"} %d\n", model,
                     ctm_state_name(static_cast<ctm_state>(state)), tunnel->state == state);
    });
}

void add_state_time(Text &text) {
    add_head(text, "cloudtunnel_state_seconds", "counter", "seconds", "Time in each state.");
    for_each([&](const ctm_tunnel *, const ctm_counters &counters, const char *model) {
        for (int state = 0; state < CTM_STATES; state++) {
            const auto ms = static_cast<unsigned long long>(counters.state_ms[state]);
            text.add("cloudtunnel_state_seconds_total{model=\"%s\",state=\"%s\"} %llu.%03llu\n", model,
                     ctm_state_name(static_cast<ctm_state>(state)), ms / 1000, ms % 1000);
        }
    });
}

void add_ended(Text &text) {
    add_head(text, "cloudtunnel_ended", "counter", "", "Attempts and tunnels that ended, by cause.");
    for_each([&](const ctm_tunnel *, const ctm_counters &counters, const char *model) {
        for (int cause = CTM_CAUSE_NONE + 1; cause < CTM_CAUSES; cause++)
            text.add("cloudtunnel_ended_total{model=\"%s\",cause=\"%s\"} %llu\n", model,
                     ctm_cause_name(static_cast<ctm_cause>(cause)),
                     static_cast<unsigned long long>(counters.ended[cause]));
    });
}

}  // namespace
}  // namespace ctm

size_t ctm_metrics(char *text, size_t size) {
    if (!ctm::process_up()) return 0;
    ctm::Text out(text, text ? size : 0);
    ctm::add_head(out, "cloudtunnel_daemon", "gauge", "", "Whether the daemon is connected.");
    out.add("cloudtunnel_daemon %d\n", ctm_daemon());
    ctm::add_state(out);
    ctm::add_state_time(out);
    ctm::add_ended(out);
    for (const ctm::Family &family : ctm::kFamilies) ctm::add_family(out, family);
    out.add("# EOF\n");
    return out.length();
}
