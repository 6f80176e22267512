#include "junit_reader.h"

#include <algorithm>

#include "json_text.h"
#include "text.h"

namespace sim {
namespace {

// XML has no way to write most control characters, so the text is made printable first.
std::string xml_text(std::string_view text) {
    std::string out;
    for (const char c : printable(text, std::string_view::npos)) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string seconds_text(std::chrono::steady_clock::duration time) {
    std::string out;
    append_seconds(out, seconds_of(time));
    return out;
}

}  // namespace

JunitReader::JunitReader(EventStream &events)
    : subscription_(events.subscribe(kinds_where([](const KindRow &row) {
                                         return row.kind >= Kind::step_started && row.kind <= Kind::step_skipped;
                                     }),
                                     [this](const Event &event) { read(event); })) {}

void JunitReader::read(const Event &event) {
    switch (event.kind) {
        case Kind::step_passed:
            return end(event, Result::passed);
        case Kind::step_failed:
            return end(event, Result::failed);
        default:
            const Result result = event.kind == Kind::step_skipped ? Result::skipped : Result::running;
            cases_.push_back({std::string(event.text_of("line")), result, event.time, event.time, {}});
    }
}

void JunitReader::end(const Event &event, Result result) {
    Case &last = cases_.back();
    last.result = result;
    last.end = event.time;
    last.cause = event.cause;
}

std::string JunitReader::report() const {
    const auto failed = std::ranges::count_if(
        cases_, [](const Case &one) { return one.result == Result::failed || one.result == Result::running; });
    const auto skipped = std::ranges::count(cases_, Result::skipped, &Case::result);
    std::chrono::steady_clock::duration total{};
    for (const Case &one : cases_) total += one.end - one.start;

    std::string out = cat("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"cloudtunnel-sim\" tests=\"",
                          cases_.size(), "\" failures=\"", failed, "\" errors=\"0\" skipped=\"", skipped, "\" time=\"",
                          seconds_text(total), "\">\n");
    for (std::size_t i = 0; i < cases_.size(); i++) {
        const Case &one = cases_[i];
        out += cat("  <testcase classname=\"steps\" name=\"", i + 1, " ", xml_text(one.line), "\" time=\"",
                   seconds_text(one.end - one.start), "\"");
        switch (one.result) {
            case Result::passed:
                out += "/>\n";
                break;
            case Result::skipped:
                out += "><skipped/></testcase>\n";
                break;
            case Result::failed:
                out += cat("><failure message=\"", xml_text(one.cause), "\"/></testcase>\n");
                break;
            case Result::running:
                out += "><failure message=\"the program ended before the step was done\"/></testcase>\n";
                break;
        }
    }
    return out + "</testsuite>\n";
}

}  // namespace sim
