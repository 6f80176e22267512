#include "options.h"

#include <cloudtunnel_module.h>
#include <sys/un.h>

#include <algorithm>

namespace module_program {
namespace {

using common::cat;

constexpr size_t kFileNameMax = 4095;
constexpr size_t kSocketNameMax = sizeof(sockaddr_un::sun_path) - 1;
constexpr size_t kCommandMax = 65535;
constexpr long kGoalMax = 1000000;
constexpr long kSecondsMax = 365L * 24 * 60 * 60;
constexpr long kPingMax = 24L * 60 * 60;
constexpr long kMessageMin = 125;
constexpr long kMessageMax = 64L << 20;

// set_models returns the setter of --model, which may be given several times. The first call gets the default, and the
// second one replaces it.
common::Setter set_models(std::vector<std::string> &models) {
    return [&models, calls = 0](std::string_view text) mutable {
        std::string model;
        common::set_filled_text(model, CTM_NAME_MAX)(text);
        if (calls++ == 1) models.clear();
        if (std::find(models.begin(), models.end(), model) != models.end())
            throw common::BadInput(cat("'", common::printable(model), "' is given twice"));
        if (models.size() == CTM_TUNNEL_MAX) throw common::BadInput(cat("at most ", CTM_TUNNEL_MAX, " are possible"));
        models.push_back(model);
    };
}

constexpr std::string_view kIntroduction =
    R"(Usage: cloudtunnel-module [OPTION]...

A module process: it registers with the cloud manager daemon, sets up its tunnel as soon as the daemon sends tunnel
data, hands the platform's messages to a handler or answers them itself, and starts again when the tunnel ends. The
timeline on standard output has one line an event: seconds since start, state, event.

)";

constexpr std::string_view kEpilogue = R"(
Without goals the program runs until --seconds are over, and ends with status 0. With goals it ends with status 0 once
all of them are met, and with status 1 when one is not met by then. An open tunnel is closed first. SIGINT or SIGTERM
closes the tunnel and ends the program with status 0; a second signal ends it at once.

A handler is any program that reads lines and writes lines, each a JSON object: events such as
  {"event":"message","model":"desk","type":"text","text":"hello"}
come in, and what is to be sent goes out:
  {"send":"hello yourself"}
The man page explains them all. Without a handler the program answers by itself: "answer: " and the request's bytes, in a
frame of the same type. A message in fragments begins with the line "length:<decimal>", the number of payload bytes behind
it, and is answered with "answer: <decimal> bytes". Pings and closes are answered always.

SIGHUP opens the file of the library's log anew.

Examples:
  cloudtunnel-module
  cloudtunnel-module --model base --exchanges 5 --seconds 60
  cloudtunnel-module --model desk --links 2 --log module.log --log-level 9
  cloudtunnel-module --model base --model wifi --exec ./handler.py --metrics /run/module.prom

Exit status: 0 success, 1 a failure while running, 2 the command line is wrong.
)";

}  // namespace

common::OptionTable option_table(Options &options) {
    using common::set_filled_text, common::set_number;
    return {
        {"Names, of at most 31 characters",
         {
             {"--model", "NAME", "desk",
              "the cloud model, and the name the module registers with; several are possible",
              set_models(options.models)},
             {"--sub-name", "NAME", "desk-module", "the second name of the registration",
              set_filled_text(options.sub_name, CTM_NAME_MAX)},
             {"--device-model", "NAME", "desk-device", "the device model that the registration names to the platform",
              set_filled_text(options.device_model, CTM_NAME_MAX)},
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
             {"--fragment-size", "N", "8192", "a longer message goes out in fragments of this size",
              set_number(options.fragment_size, CTM_FRAGMENT_MIN, CTM_FRAGMENT_MAX)},
             {"--ping", "SECONDS", "30", "ping the platform so often, and give up after three times that; 0: never",
              set_number(options.ping, 0, kPingMax)},
         }},
        {"Handlers, which get the messages in lines",
         {
             {"--exec", "COMMAND", "", "run COMMAND as the handler, and again when it ends",
              set_filled_text(options.exec, kCommandMax)},
             {"--lines", "", "", "the lines on standard input and output; the timeline goes to standard error",
              common::set_flag(options.lines)},
             {"--socket", "PATH", "", "the lines for all who connect to the unix socket PATH",
              set_filled_text(options.socket, kSocketNameMax)},
         }},
        {"Counters",
         {
             {"--metrics", "FILE", "", "write them to FILE every 5 seconds, in the OpenMetrics text format",
              set_filled_text(options.metrics, kFileNameMax)},
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
