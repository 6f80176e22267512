#include "options.h"

#include "common/text.h"

namespace explain {
namespace {

constexpr std::size_t kNameMax = 32;  // characters of a model's name that the library keeps

constexpr std::string_view kIntroduction = R"(Usage: cloudtunnel-explain [OPTION]... [FILE]

Reads a log that has libcloudtunnel's messages in it, behind any prefix, from FILE or standard input. Shows what became
of each tunnel: what came up, where it stopped, why, and what to look at; then a summary a tunnel. The log may come from
another machine, begin in the middle and end in the middle of a line. Secrets are not shown.

)";

constexpr std::string_view kEpilogue = R"(
Durations are in seconds where the lines have time stamps (ISO 8601, syslog, asctime, time of day, seconds with a
fraction), else in lines. From level 5 (CONNECT) on the log has all that is needed; with less, what is missing is
inferred.

Examples:
  cloudtunnel-explain module.log
  journalctl -u cloud | cloudtunnel-explain --json
  cloudtunnel-explain --blanked module.log >to-pass-on.log

Exit status: 0 messages of the library were found, 1 none was, or the file cannot be read, 2 the command line is wrong.
)";

}  // namespace

common::OptionTable option_table(Options &options) {
    using common::set_flag, common::set_filled_text;
    return {{"What is shown",
             {
                 {"--model", "NAME", "", "this tunnel only", set_filled_text(options.model, kNameMax)},
                 {"--summary", "", "", "the summary only", set_flag(options.summary)},
                 {"--json", "", "", "one JSON document instead of text", set_flag(options.json)},
                 {"--blanked", "", "", "the log itself, its secrets blanked, instead of what it means",
                  set_flag(options.blanked)},
             }}};
}

std::string help_text() {
    Options any;
    return common::cat(kIntroduction, common::options_help(option_table(any)), kEpilogue);
}

}  // namespace explain
