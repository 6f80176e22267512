#include "explain.h"

#include <algorithm>
#include <cstdio>

#include "common/text.h"
#include "lines.h"
#include "report.h"
#include "story.h"

namespace explain {
namespace {

constexpr std::size_t kHexColumnMin = 4;      // bytes by which a line of a dump is known whose head is missing
constexpr std::uint64_t kDumpTextMax = 4096;  // lines of a packet's text, when the end of the dump is missing

// A report that shows the summary only, or nothing.
class Quiet : public Report {
  public:
    Quiet(const Secrets &secrets, std::unique_ptr<Report> summary) : Report(secrets), summary_(std::move(summary)) {}
    void event(const Moment &, const Event &) override {}
    void repeated(const Moment &, const Event &, std::uint64_t) override {}
    void summary(const Summary &summary) override {
        if (summary_) summary_->summary(summary);
    }
    void end(const LogCounts &counts) override {
        if (summary_) summary_->end(counts);
    }

  private:
    std::unique_ptr<Report> summary_;
};

std::unique_ptr<Report> make_report(const Secrets &secrets, const Options &options) {
    if (options.blanked) return std::make_unique<Quiet>(secrets, nullptr);
    auto report = options.json ? json_report(secrets) : text_report(secrets);
    if (options.summary) report = std::make_unique<Quiet>(secrets, std::move(report));
    return report;
}

std::string_view without_end(std::string_view line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
    return line;
}

// The reader of one log. A line is a message, a further line of one, empty or unknown.
class Reader {
  public:
    explicit Reader(const Options &options)
        : options_(options),
          matcher_(kFormats),
          report_(make_report(secrets_, options)),
          story_(*report_, secrets_, options.model) {}

    bool read(const std::string &name) {
        Lines lines(name);
        std::string_view line;
        while (lines.next(line)) {
            counts_.lines++;
            const Kind kind = take(line);
            if (options_.blanked) show_blanked(line, kind);
        }
        counts_.bytes = lines.bytes();
        counts_.long_lines = lines.pieces();
        counts_.last_line_open = lines.ends_in_line();
        counts_.tunnels_left_out = story_.tunnels_left_out();
        if (counts_.messages == 0) return false;
        story_.finish(clock_.moment(counts_.lines));
        report_->end(counts_);
        return true;
    }

  private:
    enum class Kind { empty, message, content, further, unknown };  // content: a further line of what was sent

    Kind take(std::string_view whole) {
        const std::string_view line = without_end(whole);
        if (line.empty()) {
            counts_.empty++;
            return Kind::empty;
        }
        Match match;
        const bool found = matcher_.match(line, match);
        if (dump_text_ > 0 && !ends_dump_text(found, match)) {
            counts_.continued++;
            return Kind::further;
        }
        if (found) {
            counts_.messages++;
            take_message(line, match);
            return Kind::message;
        }
        if (several_lines_ || hex_column(line) >= (in_dump_ ? 1 : kHexColumnMin)) {
            counts_.continued++;
            return several_lines_ ? Kind::content : Kind::further;
        }
        counts_.unknown++;
        clock_.read(line);
        return Kind::unknown;
    }

    // The text of a packet is one message, whose bytes can look like any other. It ends with the dump; where the end is
    // missing, with a message behind a prefix as long as the dump's, since the further lines of a text have no prefix.
    bool ends_dump_text(bool found, const Match &match) {
        const bool at_end = found && kFormats[match.format].text == kDumpEnd;
        const bool same_prefix = found && dump_prefix_ > 0 && match.start == dump_prefix_;
        dump_text_ = at_end || same_prefix || dump_text_ > kDumpTextMax ? 0 : dump_text_ + 1;
        return dump_text_ == 0;
    }

    void take_message(std::string_view line, const Match &match) {
        const Format &format = kFormats[match.format];
        story_.saw_level(format.level);
        several_lines_ = format.text.find('\n') < format.text.size() - 1;
        in_dump_ = format.text == kDumpData;
        if (format.text == kDumpText) {
            dump_text_ = 1;
            dump_prefix_ = match.start;
        }
        if (format.text == kDumpHeader) clock_.read(match.arguments.text(0), match.arguments.text(1));
        if (!story_.interesting(match.format)) return;
        clock_.read(line.substr(0, match.start));
        story_.take(match, line.substr(0, match.start), clock_.moment(counts_.lines));
    }

    void show_blanked(std::string_view line, Kind kind) {
        const std::string out = (kind == Kind::content ? secrets_.blank_content(line) : secrets_.blank(line)) + "\n";
        std::fwrite(out.data(), 1, out.size(), stdout);
    }

    const Options &options_;
    Secrets secrets_;
    Clock clock_;
    Matcher matcher_;
    std::unique_ptr<Report> report_;
    Story story_;
    LogCounts counts_;
    bool in_dump_ = false;         // bytes of a packet follow
    bool several_lines_ = false;   // the last message goes on in the lines that follow
    std::uint64_t dump_text_ = 0;  // lines since the text of a packet began; 0: none
    std::size_t dump_prefix_ = 0;
};

}  // namespace

bool explain_log(const std::string &name, const Options &options) { return Reader(options).read(name); }

}  // namespace explain
