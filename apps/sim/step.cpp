#include "step.h"

#include <algorithm>

#include "behaviour.h"
#include "common/options.h"
#include "common/websocket.h"
#include "text.h"

namespace sim {
namespace {

// What may follow the verb.
enum class Form {
    nothing,
    text,  // must be there
    maybe_text,
    count,  // a number in the row's range, must be there
    maybe_count,
    status,  // STATUS [REASON]
    maybe_status,
    setting,  // NAME VALUE
    hex,
    maybe_json,
    fault,  // FAULT, or off [NAME]
};

struct Range {
    long min = 0;
    long max = 0;
    long initial = 0;  // when the number is left out
};

struct Row {
    Verb verb;
    std::string_view name;
    std::string_view arguments;
    Form form;
    std::string_view help;
    Range range = {};
};

constexpr Range kRequestCounts = {.min = 1, .max = 100000};
constexpr Range kBurstCounts = {.min = 1, .max = 500};
constexpr Range kSizes = {.min = 1, .max = 64L << 20};
constexpr Range kStatuses = {.min = 0, .max = 65535};
constexpr Range kStatusesOr1000 = {.min = 0, .max = 65535, .initial = 1000};
constexpr Range kSecondsOr1 = {.min = 0, .max = 3600, .initial = 1};
constexpr Range kMilliseconds = {.min = 0, .max = 3600000};

constexpr Row kRows[] = {
    {Verb::wait_module, "wait-module", "[MODEL]", Form::maybe_text,
     "wait until a module process has registered MODEL, or any model, with the daemon"},
    {Verb::wait_tunnel, "wait-tunnel", "[MODEL]", Form::maybe_text,
     "wait until a tunnel of MODEL, or any, is registered with the platform"},
    {Verb::wait_close, "wait-close", "", Form::nothing, "wait until the tunnel last used or waited for has ended"},
    {Verb::use, "use", "N|MODEL|newest", Form::text,
     "choose the tunnel for the steps that follow; without it, the newest one"},
    {Verb::request, "request", "TEXT", Form::text, "send TEXT, expect 'answer: TEXT'"},
    {Verb::binary, "binary", "TEXT", Form::text, "the same in a binary frame"},
    {Verb::requests, "requests", "N", Form::count, "N requests, each after the answer to the one before",
     kRequestCounts},
    {Verb::large, "large", "SIZE", Form::count, "one frame of SIZE bytes, expect 'answer: ' and the same bytes",
     kSizes},
    {Verb::fragmented, "fragmented", "SIZE", Form::count,
     "a text of SIZE bytes in fragments, behind a line with SIZE; expect 'answer: SIZE bytes'", kSizes},
    {Verb::burst, "burst", "N", Form::count, "N requests in one write (one TLS record), expect N answers",
     kBurstCounts},
    {Verb::ping, "ping", "[TEXT]", Form::maybe_text, "send a ping, expect the pong with the same body"},
    {Verb::expect, "expect", "TEXT", Form::text, "wait for a message of the module that contains TEXT"},
    {Verb::close, "close", "[STATUS [REASON]]", Form::maybe_status,
     "send a close (1000 without STATUS), expect its echo", kStatusesOr1000},
    {Verb::close_frame, "close-frame", "STATUS [REASON]", Form::status, "send a close, expect nothing", kStatuses},
    {Verb::drop, "drop", "", Form::nothing, "reset the tunnel's TCP connection"},
    {Verb::raw, "raw", "HEX", Form::hex, "send these bytes as they are, in place of a frame"},
    {Verb::tunnel, "tunnel", "MODEL", Form::text, "the daemon sends MODEL its tunnel data (sub-type 1)"},
    {Verb::closed, "closed", "MODEL", Form::text,
     "the daemon sends MODEL the notice that its tunnel closed (sub-type 2)"},
    {Verb::third, "third", "MODEL", Form::text, "the daemon sends MODEL the notice of sub-type 3"},
    {Verb::daemon_stop, "daemon stop", "", Form::nothing, "the daemon closes its links and its socket"},
    {Verb::daemon_start, "daemon start", "", Form::nothing, "the daemon listens again"},
    {Verb::daemon_restart, "daemon restart", "[SECONDS]", Form::maybe_count, "both, SECONDS apart (1 if left out)",
     kSecondsOr1},
    {Verb::set, "set", "NAME VALUE", Form::setting, "set one of "},
    {Verb::fault, "fault", "FAULT|off [NAME]", Form::fault,
     "switch a fault on, or off: all, or those called NAME; a tunnel that is up meets it at once"},
    {Verb::sleep, "sleep", "MS", Form::count, "do nothing for MS milliseconds", kMilliseconds},
    {Verb::status, "status", "[json]", Form::maybe_json,
     "show listeners, links and tunnels; json: as one line of JSON"},
    {Verb::help, "help", "", Form::nothing, "show this list"},
    {Verb::quit, "quit", "", Form::nothing, "end the program with status 0"},
};

// find_row finds the row whose name, of one or two words, begins the line, and sets `rest` to what follows the name.
const Row *find_row(std::string_view line, std::string_view &rest) {
    for (const Row &row : kRows) {
        if (!line.starts_with(row.name)) continue;
        rest = line.substr(row.name.size());
        if (rest.empty() || rest.front() == ' ' || rest.front() == '\t') {
            rest = trim(rest);
            return &row;
        }
    }
    return nullptr;
}

long read_count(const Row &row, std::string_view word) {
    return common::read_number(word, row.range.min, row.range.max);
}

bool takes_nothing(Form form) {
    return form == Form::nothing || form == Form::maybe_text || form == Form::maybe_count ||
           form == Form::maybe_status || form == Form::maybe_json;
}

void read_status(Step &step, const Row &row, std::string_view rest) {
    if (!rest.empty()) step.count = read_count(row, first_word(rest));
    if (rest.size() > common::kCloseReasonMax) throw BadInput("a close holds at most 123 bytes of reason");
    step.text = rest;
}

void read_setting(Step &step, std::string_view rest) {
    step.text = first_word(rest);
    step.value = rest;
    Behaviour checked;
    set_behaviour(checked, step.text, step.value);
}

void read_fault(Step &step, std::string_view rest) {
    std::string_view after = rest;
    if (first_word(after) != "off") {
        step.fault = parse_fault(rest);
    } else if (!after.empty()) {
        step.text = find_fault(after).name;
    }
}

void read_arguments(Step &step, const Row &row, std::string_view rest) {
    if (rest.empty() && !takes_nothing(row.form)) throw BadInput(cat("expected ", row.name, " ", row.arguments));
    step.count = row.range.initial;
    switch (row.form) {
        case Form::nothing:
            if (!rest.empty()) throw BadInput(cat(row.name, " takes no argument"));
            break;
        case Form::text:
        case Form::maybe_text:
            step.text = rest;
            break;
        case Form::count:
        case Form::maybe_count:
            if (!rest.empty()) step.count = read_count(row, rest);
            break;
        case Form::status:
        case Form::maybe_status:
            read_status(step, row, rest);
            break;
        case Form::setting:
            read_setting(step, rest);
            break;
        case Form::hex:
            step.text = from_hex(rest);
            break;
        case Form::maybe_json:
            if (!rest.empty() && rest != kStatusAsJson) throw BadInput(cat(row.name, " takes json or nothing"));
            step.text = rest;
            break;
        case Form::fault:
            read_fault(step, rest);
            break;
    }
    if (row.verb == Verb::ping && step.text.size() > common::kControlMax) {
        throw BadInput("a ping holds at most 125 bytes");
    }
}

}  // namespace

Step parse_step(std::string_view line) {
    Step step;
    step.line = trim(line);
    try {
        std::string_view rest;
        const Row *row = find_row(step.line, rest);
        if (!row) throw BadInput("no such step; 'help' lists all");
        step.verb = row->verb;
        read_arguments(step, *row, rest);
    } catch (const BadInput &bad) {
        throw BadInput(cat("bad step '", printable(step.line), "': ", bad.what()));
    }
    return step;
}

std::vector<Step> parse_script(std::string_view text) {
    std::vector<Step> steps;
    for (int line_number = 1; !text.empty(); line_number++) {
        const auto end = text.find('\n');
        const std::string_view line = trim(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.empty() || line.front() == '#') continue;
        try {
            steps.push_back(parse_step(line));
        } catch (const BadInput &bad) {
            throw BadInput(cat("line ", line_number, ": ", bad.what()));
        }
    }
    return steps;
}

std::string step_help() {
    std::string out;
    for (const Row &row : kRows) {
        const std::string names = row.verb == Verb::set ? behaviour_names() : "";
        out += common::help_row(row.name, row.arguments, cat(row.help, names));
    }
    return out;
}

}  // namespace sim
