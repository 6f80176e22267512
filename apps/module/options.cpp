#include "options.h"

namespace module_program {
namespace {

using common::cat;

constexpr size_t kNameMax = 31;  // the library's records hold 32 characters of a name, the daemon's messages 31
constexpr size_t kFileNameMax = 4095;
constexpr long kGoalMax = 1000000;
constexpr long kSecondsMax = 365L * 24 * 60 * 60;
constexpr long kMessageMin = 125;
constexpr long kMessageMax = 64L << 20;

constexpr long kSmallFragments = 8192;  // the library cuts into fragments of either size
constexpr long kLargeFragments = 16000;

void set_fragment_size(long &size, std::string_view text) {
    const long number = common::parse_number(text, kSmallFragments, kLargeFragments).value_or(0);
    if (number != kSmallFragments && number != kLargeFragments) {
        throw common::BadInput(cat("'", common::printable(text), "' is neither 8192 nor 16000"));
    }
    size = number;
}

constexpr std::string_view kIntroduction =
    R"(Usage: cloudtunnel-module [OPTION]...

A module process: it registers with the cloud manager daemon, sets up its tunnel as soon as the daemon sends tunnel
data, answers the platform's requests, and starts again when the tunnel ends. The timeline on standard output has one
line an event: seconds since start, state, event.

)";

constexpr std::string_view kEpilogue = R"(
Without goals the program runs until --seconds are over, and ends with status 0. With goals it ends with status 0 once
all of them are met, and with status 1 when one is not met by then. An open tunnel is closed first. SIGINT or SIGTERM
closes the tunnel and ends the program with status 0; a second signal ends it at once.

A request, a text or binary frame, is answered with the text "answer: " and the request's bytes. A message in fragments
begins with the line "length:<decimal>", the number of payload bytes behind it, and is answered with
"answer: <decimal> bytes". Pings and closes are answered too.

Examples:
  cloudtunnel-module
  cloudtunnel-module --model base --exchanges 5 --seconds 60
  cloudtunnel-module --model desk --links 2 --log module.log --log-level 9

Exit status: 0 success, 1 a failure while running, 2 the command line is wrong.
)";

}  // namespace

common::OptionTable option_table(Options &options) {
    using common::set_filled_text, common::set_number;
    return {
        {"Names, of at most 31 characters",
         {
             {"--model", "NAME", "desk", "the cloud model, and the name the module registers with",
              set_filled_text(options.model, kNameMax)},
             {"--sub-name", "NAME", "desk-module", "the second name of the registration",
              set_filled_text(options.sub_name, kNameMax)},
             {"--device-model", "NAME", "desk-device", "the device model that the registration names to the platform",
              set_filled_text(options.device_model, kNameMax)},
         }},
        {"Goals and time",
         {
             {"--exchanges", "N", "", "goal: N requests answered", set_number(options.exchanges, 1, kGoalMax)},
             {"--tunnels", "N", "", "goal: N tunnels came up and ended", set_number(options.tunnels, 1, kGoalMax)},
             {"--links", "N", "", "goal: the link to the daemon came up N times",
              set_number(options.links, 1, kGoalMax)},
             {"--seconds", "N", "3600", "time after which the program ends",
              set_number(options.seconds, 1, kSecondsMax)},
         }},
        {"Messages",
         {
             {"--max-message", "BYTES", "1048576", "a longer message closes the tunnel with status 1009",
              set_number(options.max_message, kMessageMin, kMessageMax)},
             {"--fragment-size", "N", "8192", "fragments of an answer: 8192 or 16000; shorter answers are one frame",
              [&options](std::string_view text) { set_fragment_size(options.fragment_size, text); }},
         }},
        {"The library's log",
         {
             {"--log", "FILE", "", "write it to FILE; - shows it on standard output, below the timeline's lines",
              set_filled_text(options.log, kFileNameMax)},
             {"--log-level", "N", "5", "highest level shown, 0 none to 9 all", set_number(options.log_level, 0, 9)},
         }},
    };
}

std::string help_text() {
    Options any;
    return cat(kIntroduction, common::options_help(option_table(any)), kEpilogue);
}

}  // namespace module_program
