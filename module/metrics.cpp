// The counters in the OpenMetrics text format: family by family, with the samples of each tunnel.
#include <cloudtunnel.h>
#include <cloudtunnel_module.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "names.h"
#include "process.h"
#include "text_table.h"
#include "totals.h"
#include "tunnel.h"

namespace ctm {
namespace {

// Writes into the caller's text as far as it reaches, and counts what does not fit.
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

enum class Type : uint8_t { counter, gauge, stateset };
constexpr char kTypes[] = "counter\0gauge\0stateset";

enum class Unit : uint8_t { none, bytes, milliseconds, microseconds };
constexpr char kUnits[] = "\0bytes\0seconds\0seconds";

// The label by which a family has several samples for one tunnel.
enum class Label : uint8_t { none, state, cause };

// The names of the families, behind "cloudtunnel_".
constexpr char kFamilyNames[] =
    "state\0"
    "state_seconds\0"
    "ended\0"
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
    Label label;
    uint16_t at;  // of the value, or of the first value, in ctm_counters
};
constexpr Family kFamilies[] = {
    {Type::stateset, Unit::none, Label::state, 0},
    {Type::counter, Unit::milliseconds, Label::state, offsetof(ctm_counters, state_ms)},
    {Type::counter, Unit::none, Label::cause, offsetof(ctm_counters, ended)},
    {Type::counter, Unit::none, Label::none, offsetof(ctm_counters, attempts)},
    {Type::counter, Unit::none, Label::none, offsetof(ctm_counters, opened)},
    {Type::counter, Unit::none, Label::none, offsetof(ctm_counters, messages_in)},
    {Type::counter, Unit::none, Label::none, offsetof(ctm_counters, messages_out)},
    {Type::counter, Unit::bytes, Label::none, offsetof(ctm_counters, bytes_in)},
    {Type::counter, Unit::bytes, Label::none, offsetof(ctm_counters, bytes_out)},
    {Type::counter, Unit::none, Label::none, offsetof(ctm_counters, pings)},
    {Type::counter, Unit::none, Label::none, offsetof(ctm_counters, pongs)},
    {Type::counter, Unit::none, Label::none, offsetof(ctm_counters, refused)},
    {Type::gauge, Unit::none, Label::none, offsetof(ctm_counters, queue_messages)},
    {Type::gauge, Unit::bytes, Label::none, offsetof(ctm_counters, queue_bytes)},
    {Type::gauge, Unit::bytes, Label::none, offsetof(ctm_counters, queue_most)},
    {Type::gauge, Unit::microseconds, Label::none, offsetof(ctm_counters, round_trip_last_us)},
    {Type::gauge, Unit::microseconds, Label::none, offsetof(ctm_counters, round_trip_smallest_us)},
    {Type::gauge, Unit::microseconds, Label::none, offsetof(ctm_counters, round_trip_mean_us)},
};
static_assert(text_count(kFamilyNames) == std::size(kFamilies));

// add_label writes the label of sample `index`. In a state set it has the name of the family.
void add_label(Text &text, const Family &family, int index) {
    if (family.label == Label::none) return;
    const bool cause = family.label == Label::cause;
    const char *name = family.type == Type::stateset ? "cloudtunnel_state" : cause ? "cause" : "state";
    text.add(",%s=\"%s\"", name, cause ? cause_name(index) : state_name(index));
}

void add_value(Text &text, Unit unit, unsigned long long value) {
    if (unit < Unit::milliseconds) return text.add("} %llu\n", value);
    if (unit == Unit::milliseconds) value *= 1000;
    text.add("} %llu.%06llu\n", value / 1000000, value % 1000000);
}

void add_samples(Text &text, const Family &family, const char *name, const ctm_tunnel *tunnel) {
    const ctm_counters &counters = counters_of(tunnel);
    const Escaped model(tunnel->model);
    int index = family.label == Label::cause ? CTM_CAUSE_NONE + 1 : 0;
    const int end = family.label == Label::cause ? CTM_CAUSES : family.label == Label::state ? CTM_STATES : 1;
    for (; index < end; index++) {
        text.add("cloudtunnel_%s%s{model=\"%s\"", name, family.type == Type::counter ? "_total" : "", model.text);
        add_label(text, family, index);
        add_value(text, family.unit,
                  family.type == Type::stateset
                      ? tunnel->state == index
                      : counter_at(counters, family.at + sizeof(uint64_t) * static_cast<size_t>(index)));
    }
}

void add_family(Text &text, const Family &family, const char *name) {
    const char *unit = text_at(kUnits, static_cast<size_t>(family.unit));
    text.add("# TYPE cloudtunnel_%s %s\n", name, text_at(kTypes, static_cast<size_t>(family.type)));
    if (*unit) text.add("# UNIT cloudtunnel_%s %s\n", name, unit);
    for (const ModelRow &row : registry_rows()) {
        if (row.tunnel) add_samples(text, family, name, row.tunnel);
    }
}

}  // namespace
}  // namespace ctm

size_t ctm_metrics(char *text, size_t size) {
    if (!ctm::process_up()) return 0;
    ctm::Text out(text, text ? size : 0);
    out.add("# TYPE cloudtunnel_daemon gauge\ncloudtunnel_daemon %d\n", ctm::process_daemon_connected());
    const char *name = ctm::kFamilyNames;
    for (const ctm::Family &family : ctm::kFamilies) {
        ctm::add_family(out, family, name);
        name = ctm::text_at(name, 1);
    }
    out.add("# EOF\n");
    return out.length();
}
