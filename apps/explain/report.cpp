#include "report.h"

#include <cstdio>

#include "common/text.h"

namespace explain {
namespace {

using common::cat;

constexpr std::size_t kTextMax = 400;  // bytes of a text that are shown

std::uint64_t sum(const std::array<std::uint64_t, kCauses> &counts) {
    std::uint64_t all = 0;
    for (const std::uint64_t count : counts) all += count;
    return all;
}

void print(const std::string &text) { std::fwrite(text.data(), 1, text.size(), stdout); }

class TextReport : public Report {
  public:
    using Report::Report;

    void event(const Moment &at, const Event &event) override {
        print(cat(show_moment(at), "  ", source(event), ": ", shown(event.what), duration(at, event), "\n"));
        if (!event.cause) return;
        print(cat("    cause: ", shown(event.sentence), "\n    look at: ", row_of(*event.cause).look_at, "\n"));
    }

    void repeated(const Moment &at, const Event &event, std::uint64_t times) override {
        print(cat(show_moment(at), "  ", source(event), ": the same ", times, times == 1 ? " more time" : " more times",
                  " until here: ", shown(event.what), "\n"));
    }

    void summary(const Summary &summary) override {
        std::string out = cat(first_ ? "\nSummary\n" : "", shown(summary.tunnel), ": ", summary.attempts,
                              summary.attempts == 1 ? " set-up" : " set-ups", " seen, ", summary.came_up, " came up, ",
                              summary.is_up ? "up" : "down", " at the end of the log\n");
        first_ = false;
        out += by_cause("set-ups failed", summary.failed) + by_cause("tunnels ended", summary.ended);
        if (summary.longest) {
            out += cat("    longest outage: ", show_span(summary.longest->from, summary.longest->to), ", from ",
                       show_moment(summary.longest->from), " to ",
                       summary.longest->open ? "the end of the log" : show_moment(summary.longest->to), "\n");
        }
        print(out);
    }

    void end(const LogCounts &counts) override {
        std::string out = cat("\nThe log: ", counts.lines, " lines; ", counts.messages, " messages of the library, ",
                              counts.continued, " further lines of such messages, ", counts.empty, " empty, ",
                              counts.unknown, " unknown\n");
        if (counts.long_lines > 0) out += cat("    ", counts.long_lines, " pieces of lines longer than 1 MiB\n");
        if (counts.last_line_open) out += "    the last line has no end: it may be cut\n";
        if (counts.tunnels_left_out > 0) {
            out += cat("    ", counts.tunnels_left_out, " messages of tunnels beyond the number that is kept\n");
        }
        print(out);
    }

  private:
    [[nodiscard]] std::string source(const Event &event) const {
        return event.tunnel.empty() ? "daemon" : shown(event.tunnel);
    }
    static std::string duration(const Moment &at, const Event &event) {
        return event.since ? cat(", after ", show_span(*event.since, at)) : "";
    }
    static std::string by_cause(std::string_view title, const std::array<std::uint64_t, kCauses> &counts) {
        if (sum(counts) == 0) return "";
        std::string out = cat("    ", title, ": ", sum(counts));
        std::string_view separator = " (";
        for (std::size_t i = 0; i < kCauses; i++) {
            if (counts[i] == 0) continue;
            out += cat(separator, row_of(static_cast<Cause>(i)).title, " ", counts[i]);
            separator = ", ";
        }
        return out + ")\n";
    }
    bool first_ = true;
};

class JsonReport : public Report {
  public:
    using Report::Report;

    void event(const Moment &at, const Event &event) override { put_event(at, event, 0); }
    void repeated(const Moment &at, const Event &event, std::uint64_t times) override { put_event(at, event, times); }

    void summary(const Summary &summary) override {
        std::string out =
            cat(separator(Part::tunnels), "{\"tunnel\":", text(summary.tunnel), ",\"attempts\":", summary.attempts,
                ",\"came_up\":", summary.came_up, ",\"up\":", summary.is_up ? "true" : "false",
                ",\"failed\":", by_cause(summary.failed), ",\"ended\":", by_cause(summary.ended));
        if (summary.longest) {
            out += cat(",\"longest_outage\":{\"from\":", moment(summary.longest->from),
                       ",\"to\":", moment(summary.longest->to), length(summary.longest->from, summary.longest->to),
                       ",\"open\":", summary.longest->open ? "true" : "false", "}");
        }
        print(out + "}");
    }

    void end(const LogCounts &counts) override {
        enter(Part::log);
        print(cat("{\"lines\":", counts.lines, ",\"bytes\":", counts.bytes, ",\"messages\":", counts.messages,
                  ",\"continued\":", counts.continued, ",\"empty\":", counts.empty, ",\"unknown\":", counts.unknown,
                  ",\"long_lines\":", counts.long_lines, ",\"tunnels_left_out\":", counts.tunnels_left_out,
                  ",\"last_line_open\":", counts.last_line_open ? "true" : "false", "}}\n"));
    }

  private:
    enum class Part { start, events, tunnels, log };

    // enter writes what stands between the parts of the document, the skipped ones included.
    void enter(Part wanted) {
        constexpr std::string_view kBegins[] = {"", "{\"events\":[", "\n],\"tunnels\":[", "\n],\"log\":"};
        while (part_ != wanted) {
            part_ = static_cast<Part>(static_cast<int>(part_) + 1);
            print(std::string(kBegins[static_cast<int>(part_)]));
            first_ = true;
        }
    }
    std::string_view separator(Part part) {
        enter(part);
        const bool was_first = first_;
        first_ = false;
        return was_first ? "\n" : ",\n";
    }
    void put_event(const Moment &at, const Event &event, std::uint64_t times) {
        constexpr std::string_view kKinds[] = {"up", "failed", "ended", "note"};
        std::string out = cat(separator(Part::events), "{\"at\":", moment(at),
                              ",\"tunnel\":", event.tunnel.empty() ? "null" : text(event.tunnel), ",\"event\":\"",
                              kKinds[static_cast<int>(event.kind)], "\",\"what\":", text(event.what));
        if (event.cause) {
            const CauseRow &row = row_of(*event.cause);
            out += cat(",\"cause\":\"", row.id, "\",\"sentence\":", text(event.sentence), ",\"look_at\":\"",
                       row.look_at, "\"");
        }
        if (times > 0) out += cat(",\"repeated\":", times);
        if (event.since && times == 0) out += length(*event.since, at);
        print(out + "}");
    }
    static std::string moment(const Moment &moment) {
        return cat("{\"line\":", moment.line, moment.stamp.empty() ? "" : cat(",\"time\":\"", moment.stamp, "\""), "}");
    }
    static std::string length(const Moment &from, const Moment &to) {
        char number[32];
        std::snprintf(number, sizeof number, in_seconds(from, to) ? "%.3f" : "%.0f", span(from, to));
        return cat(in_seconds(from, to) ? ",\"seconds\":" : ",\"lines\":", number);
    }
    static std::string by_cause(const std::array<std::uint64_t, kCauses> &counts) {
        std::string out = "{";
        for (std::size_t i = 0; i < kCauses; i++) {
            if (counts[i] == 0) continue;
            out += cat(out.size() > 1 ? "," : "", "\"", row_of(static_cast<Cause>(i)).id, "\":", counts[i]);
        }
        return out + "}";
    }
    [[nodiscard]] std::string text(std::string_view value) const {
        std::string out = "\"";
        for (const char c : shown(value)) {
            if (c == '"' || c == '\\') out += '\\';
            out += c;
        }
        return out + "\"";
    }

    Part part_ = Part::start;
    bool first_ = true;
};

}  // namespace

std::string Report::shown(std::string_view text) const { return common::printable(secrets_.blank(text), kTextMax); }

std::unique_ptr<Report> text_report(const Secrets &secrets) { return std::make_unique<TextReport>(secrets); }
std::unique_ptr<Report> json_report(const Secrets &secrets) { return std::make_unique<JsonReport>(secrets); }

}  // namespace explain
