// The counters in the OpenMetrics text format: a family after the other, in each a sample for each tunnel.
#include <cloudtunnel.h>
#include <cloudtunnel_module.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "process.h"
#include "totals.h"
#include "tunnel.h"
#include "words.h"

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

enum class Unit : uint8_t { count, bytes, microseconds };

enum class Type : uint8_t { counter, gauge };

// The names of the families, behind "cloudtunnel_".
constexpr char kFamilyNames[] =
    "attempts\0"
    "opened\0"
    "messages_in\0"
    "messages_out\0"
    "in_bytes\0"
    "out_bytes\0"
    "pings\0"
    "pongs\0"
    "refused\0"
    "queue_messages\0"
    "queue_bytes\0"
    "queue_most_bytes\0"
    "round_trip_last_seconds\0"
    "round_trip_smallest_seconds\0"
    "round_trip_mean_seconds";

struct Family {
    Type type;
    Unit unit;
    uint16_t at;  // of the value in ctm_counters
};
constexpr Family kFamilies[] = {
    {Type::counter, Unit::count, offsetof(ctm_counters, attempts)},
    {Type::counter, Unit::count, offsetof(ctm_counters, opened)},
    {Type::counter, Unit::count, offsetof(ctm_counters, messages_in)},
    {Type::counter, Unit::count, offsetof(ctm_counters, messages_out)},
    {Type::counter, Unit::bytes, offsetof(ctm_counters, bytes_in)},
    {Type::counter, Unit::bytes, offsetof(ctm_counters, bytes_out)},
    {Type::counter, Unit::count, offsetof(ctm_counters, pings)},
    {Type::counter, Unit::count, offsetof(ctm_counters, pongs)},
    {Type::counter, Unit::count, offsetof(ctm_counters, refused)},
    {Type::gauge, Unit::count, offsetof(ctm_counters, queue_messages)},
    {Type::gauge, Unit::bytes, offsetof(ctm_counters, queue_bytes)},
    {Type::gauge, Unit::bytes, offsetof(ctm_counters, queue_most)},
    {Type::gauge, Unit::microseconds, offsetof(ctm_counters, round_trip_last_us)},
    {Type::gauge, Unit::microseconds, offsetof(ctm_counters, round_trip_smallest_us)},
    {Type::gauge, Unit::microseconds, offsetof(ctm_counters, round_trip_mean_us)},
};
static_assert(word_count(kFamilyNames) == std::size(kFamilies));

void add_head(Text &text, const char *name, const char *type, const char *unit) {
    text.add("# TYPE cloudtunnel_%s %s\n", name, type);
    if (*unit) text.add("# UNIT cloudtunnel_%s %s\n", name, unit);
}

// for_each calls `sample` with the counters of each tunnel and its model as a label's value.
template <typename Sample>
void for_each(Sample sample) {
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel) sample(row.tunnel, counters_of(row.tunnel), Escaped(row.model).text);
    }
}

void add_family(Text &text, const Family &family, const char *name) {
    const char *unit = family.unit == Unit::bytes ? "bytes" : family.unit == Unit::microseconds ? "seconds" : "";
    const bool counter = family.type == Type::counter;
    add_head(text, name, counter ? "counter" : "gauge", unit);
    for_each([&](const ctm_tunnel *, const ctm_counters &counters, const char *model) {
        unsigned long long value = 0;
        memcpy(&value, reinterpret_cast<const char *>(&counters) + family.at, sizeof value);
        text.add("cloudtunnel_%s%s{model=\"%s\"} ", name, counter ? "_total" : "", model);
        if (family.unit == Unit::microseconds)
            text.add("%llu.%06llu\n", value / 1000000, value % 1000000);
        else
            text.add("%llu\n", value);
    });
}

void add_state(Text &text) {
    add_head(text, "state", "stateset", "");
    for_each([&](const ctm_tunnel *tunnel, const ctm_counters &, const char *model) {
        for (int state = 0; state < CTM_STATES; state++)
            text.add("cloudtunnel_state{model=\"%s\",cloudtunnel_state=\"%s\"} %d\n", model,
                     ctm_state_name(static_cast<ctm_state>(state)), tunnel->state == state);
    });
}

void add_state_time(Text &text) {
    add_head(text, "state_seconds", "counter", "seconds");
    for_each([&](const ctm_tunnel *, const ctm_counters &counters, const char *model) {
        for (int state = 0; state < CTM_STATES; state++) {
            const auto ms = static_cast<unsigned long long>(counters.state_ms[state]);
            text.add("cloudtunnel_state_seconds_total{model=\"%s\",state=\"%s\"} %llu.%03llu\n", model,
                     ctm_state_name(static_cast<ctm_state>(state)), ms / 1000, ms % 1000);
        }
    });
}

void add_ended(Text &text) {
    add_head(text, "ended", "counter", "");
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
    ctm::add_head(out, "daemon", "gauge", "");
    out.add("cloudtunnel_daemon %d\n", ctm_daemon());
    ctm::add_state(out);
    ctm::add_state_time(out);
    ctm::add_ended(out);
    const char *name = ctm::kFamilyNames;
    for (const ctm::Family &family : ctm::kFamilies) {
        ctm::add_family(out, family, name);
        name = ctm::word_at(name, 1);
    }
    out.add("# EOF\n");
    return out.length();
}
