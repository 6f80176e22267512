#include "step.h"

#include <algorithm>
#include <cctype>

#include "behaviour.h"
#include "frame.h"
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
};

struct Row {
    Verb verb;
    std::string_view name;
    std::string_view arguments;
    Form form;
    long min, max, preset;  // range of the number, and its value when it is left out
    std::string_view help;
};

constexpr long kSizeMax = 64L << 20;
constexpr std::size_t kControlMax = 125;  // bytes in a ping; a close has two less for its reason

constexpr Row kRows[] = {
    {Verb::wait_module, "wait-module", "[MODEL]", Form::maybe_text, 0, 0, 0,
     "wait until a module process has registered MODEL, or any model, with the daemon"},
    {Verb::wait_tunnel, "wait-tunnel", "[MODEL]", Form::maybe_text, 0, 0, 0,
     "wait until a tunnel of MODEL, or any, is registered with the platform"},
    {Verb::wait_close, "wait-close", "", Form::nothing, 0, 0, 0, "wait until the tunnel last used has ended"},
    {Verb::use, "use", "N|MODEL|newest", Form::text, 0, 0, 0,
     "choose the tunnel for the steps that follow; without it, the newest one"},
    {Verb::request, "request", "TEXT", Form::text, 0, 0, 0, "send TEXT, expect 'answer: TEXT'"},
    {Verb::binary, "binary", "TEXT", Form::text, 0, 0, 0, "the same in a binary frame"},
    {Verb::requests, "requests", "N", Form::count, 1, 100000, 0, "N requests, each after the answer to the one before"},
    {Verb::large, "large", "SIZE", Form::count, 1, kSizeMax, 0,
     "one frame of SIZE bytes, expect 'answer: ' and the same bytes"},
    {Verb::fragmented, "fragmented", "SIZE", Form::count, 1, kSizeMax, 0,
     "a text of SIZE bytes in fragments, behind a line that tells SIZE; expect 'answer: SIZE bytes'"},
    {Verb::burst, "burst", "N", Form::count, 1, 500, 0, "N requests in one write (one TLS record), expect N answers"},
    {Verb::ping, "ping", "[TEXT]", Form::maybe_text, 0, 0, 0, "send a ping, expect the pong with the same body"},
    {Verb::expect, "expect", "TEXT", Form::text, 0, 0, 0, "wait for a message of the module that contains TEXT"},
    {Verb::close, "close", "[STATUS [REASON]]", Form::maybe_status, 0, 65535, 1000,
     "send a close (1000 without STATUS), expect its echo"},
    {Verb::close_frame, "close-frame", "STATUS [REASON]", Form::status, 0, 65535, 0, "send a close, expect nothing"},
    {Verb::drop, "drop", "", Form::nothing, 0, 0, 0, "reset the tunnel's TCP connection"},
    {Verb::raw, "raw", "HEX", Form::hex, 0, 0, 0, "send these bytes as they are, in place of a frame"},
    {Verb::tunnel, "tunnel", "MODEL", Form::text, 0, 0, 0, "the daemon sends MODEL its tunnel data (sub-type 1)"},
    {Verb::closed, "closed", "MODEL", Form::text, 0, 0, 0, "the daemon tells MODEL its tunnel closed (sub-type 2)"},
    {Verb::third, "third", "MODEL", Form::text, 0, 0, 0, "the daemon sends MODEL the notice of sub-type 3"},
    {Verb::daemon_stop, "daemon stop", "", Form::nothing, 0, 0, 0, "the daemon goes away: links and socket close"},
    {Verb::daemon_start, "daemon start", "", Form::nothing, 0, 0, 0, "the daemon is back"},
    {Verb::daemon_restart, "daemon restart", "[SECONDS]", Form::maybe_count, 0, 3600, 1,
     "both, SECONDS apart (1 when left out)"},
    {Verb::set, "set", "NAME VALUE", Form::setting, 0, 0, 0,
     "change upgrade, answer-status, opt1, ret-code, opt-type, lenient, mask or any-answer"},
    {Verb::sleep, "sleep", "MS", Form::count, 0, 3600000, 0, "do nothing for MS milliseconds"},
    {Verb::status, "status", "", Form::nothing, 0, 0, 0, "show listeners, links and tunnels"},
    {Verb::help, "help", "", Form::nothing, 0, 0, 0, "show this list"},
    {Verb::quit, "quit", "", Form::nothing, 0, 0, 0, "end the program with status 0"},
};

[[noreturn]] void fail(const Step &step, std::string_view why) {
    throw BadStep(cat("bad step '", printable(step.line), "': ", why));
}

// The row whose name, of one or two words, begins the line; `rest` becomes what follows it.
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

void read_count(Step &step, const Row &row, std::string_view word) {
    const auto count = number(word, row.min, row.max);
    if (!count) fail(step, cat("'", printable(word), "' is not a number from ", row.min, " to ", row.max));
    step.count = *count;
}

std::string from_hex(const Step &step, std::string_view text) {
    std::string out;
    int nibbles = 0;
    unsigned byte = 0;
    for (const char c : text) {
        if (c == ' ') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) fail(step, "expected pairs of hexadecimal digits");
        const unsigned digit = static_cast<unsigned>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
        byte = byte << 4 | digit;
        if (++nibbles % 2 == 0) out += static_cast<char>(byte & 0xff);
    }
    if (nibbles == 0 || nibbles % 2 != 0) fail(step, "expected pairs of hexadecimal digits");
    return out;
}

void read_arguments(Step &step, const Row &row, std::string_view rest) {
    const bool optional = row.form == Form::maybe_text || row.form == Form::maybe_count ||
                          row.form == Form::maybe_status || row.form == Form::nothing;
    if (rest.empty() && !optional) fail(step, cat("expected ", row.name, " ", row.arguments));
    step.count = row.preset;
    switch (row.form) {
        case Form::nothing:
            if (!rest.empty()) fail(step, cat(row.name, " takes no argument"));
            break;
        case Form::text:
        case Form::maybe_text:
            step.text = rest;
            break;
        case Form::count:
        case Form::maybe_count:
            if (!rest.empty()) read_count(step, row, rest);
            break;
        case Form::status:
        case Form::maybe_status:
            if (!rest.empty()) read_count(step, row, first_word(rest));
            if (rest.size() > kControlMax - 2) fail(step, "a close holds at most 123 bytes of reason");
            step.text = rest;
            break;
        case Form::setting: {
            step.text = first_word(rest);
            step.value = rest;
            Behaviour scratch;
            if (const std::string wrong = set_behaviour(scratch, step.text, step.value); !wrong.empty()) {
                fail(step, wrong);
            }
            break;
        }
        case Form::hex:
            step.text = from_hex(step, rest);
            break;
    }
}

}  // namespace

Step parse_step(std::string_view line) {
    Step step;
    step.line = trim(line);
    std::string_view rest;
    const Row *row = find_row(step.line, rest);
    if (!row) fail(step, "no such step; 'help' lists all");
    step.verb = row->verb;
    read_arguments(step, *row, rest);
    if (row->verb == Verb::ping && step.text.size() > kControlMax) fail(step, "a ping holds at most 125 bytes");
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
        } catch (const BadStep &bad) {
            throw BadStep(cat("line ", line_number, ": ", bad.what()));
        }
    }
    return steps;
}

std::string step_help() {
    std::string out;
    for (const Row &row : kRows) {
        std::string left = cat("  ", row.name, row.arguments.empty() ? "" : " ", row.arguments);
        left.resize(std::max<std::size_t>(left.size() + 1, 30), ' ');
        out += cat(left, row.help, "\n");
    }
    return out;
}

}  // namespace sim
