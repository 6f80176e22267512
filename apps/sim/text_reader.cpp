#include "text_reader.h"

#include <cstdio>
#include <optional>

#include "common/timeline.h"
#include "status.h"
#include "text.h"

namespace sim {
namespace {

constexpr std::size_t kBytesShown = 200;

template <class... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};

std::optional<Value> value_of(const Event &event, std::string_view name) {
    if (name == "model") return Value(Bytes{event.model});
    if (name == "cause") return Value(event.cause);
    if (name == "id") return Value(std::int64_t{event.id});
    const Value *value = event.field(name);
    return value ? std::optional<Value>(*value) : std::nullopt;
}

std::string show(const Value &value, std::size_t limit) {
    return std::visit(Overloaded{
                          [](std::int64_t number) { return std::to_string(number); },
                          [](bool truth) { return std::string(truth ? "yes" : "no"); },
                          [](std::string_view text) { return std::string(text); },
                          [limit](Bytes bytes) { return printable(bytes.bytes, limit); },
                          [](JsonText json) { return std::string(json.text); },
                          [](const Status *status) { return status_text(*status); },
                      },
                      value);
}

// A mark without its braces: the name of a field, and the limit if there is one.
struct Mark {
    explicit Mark(std::string_view inside) : name(inside.substr(0, inside.find(':'))) {
        if (name.size() == inside.size()) return;
        if (const auto number = common::parse_number(inside.substr(name.size() + 1), 0, INT32_MAX)) {
            limit = static_cast<std::size_t>(*number);
        }
    }
    std::string_view name;
    std::size_t limit = kBytesShown;
};

// take removes the text up to `end` from the front of `words`, and `end` with it.
std::string_view take(std::string_view &words, char end) {
    const std::string_view out = words.substr(0, words.find(end));
    words.remove_prefix(std::min(words.size(), out.size() + 1));
    return out;
}

bool has_every_field(const Event &event, std::string_view words) {
    for (take(words, '{'); !words.empty(); take(words, '{')) {
        if (!value_of(event, Mark(take(words, '}')).name)) return false;
    }
    return true;
}

void append(std::string &out, const Event &event, std::string_view words) {
    while (!words.empty()) {
        const auto plain = words.substr(0, words.find_first_of("{["));
        out += plain;
        words.remove_prefix(plain.size());
        if (words.empty()) return;
        const char open = words.front();
        words.remove_prefix(1);
        if (open == '{') {
            const Mark mark(take(words, '}'));
            if (const auto value = value_of(event, mark.name)) out += show(*value, mark.limit);
        } else {
            std::string_view second = take(words, ']');
            const std::string_view first = take(second, '|');
            append(out, event, has_every_field(event, first) ? first : second);
        }
    }
}

void print(const Event &event) {
    if (event.kind == Kind::status && event.is_set("as_json")) {
        std::puts(status_json(*std::get<const Status *>(*event.field("status"))).c_str());
        std::fflush(stdout);
        return;
    }
    const std::string text = event_text(event);
    const std::string column = event_column(event);
    if (event.kind != Kind::status) return common::Timeline::print(event.time, column, text);
    for (std::string_view rest = text; !rest.empty();) common::Timeline::print(event.time, column, take(rest, '\n'));
}

}  // namespace

std::string event_text(const Event &event) {
    std::string out;
    if (event.source == Source::tunnel && !event.model.empty()) out = cat("[", printable(event.model), "] ");
    append(out, event, kind_row(event.kind).text);
    return out;
}

std::string event_column(const Event &event) {
    if (event.kind == Kind::status) return "status";
    if (event.source == Source::link) return "daemon";  // a link's words name the link
    if (event.source == Source::tunnel) return cat("tunnel ", event.id);
    return source_name(event.source);
}

TextReader::TextReader(EventStream &events, bool quiet)
    : subscription_(events.subscribe(
          kinds_where([quiet](const KindRow &row) { return row.asked_for || (!quiet && !row.text.empty()); }), print)) {
}

}  // namespace sim
