#include "module_options.h"

#include <charconv>
#include <initializer_list>
#include <string_view>

#include "timeline.h"

namespace module_program {
namespace {

// The library's records hold 32 characters of a name, the daemon's messages 31.
constexpr size_t kNameMax = 31;

struct TextOption {
    std::string_view name;
    std::string Options::*field;
    size_t max;
};
constexpr TextOption kTexts[] = {
    {"--model", &Options::model, kNameMax},
    {"--sub-name", &Options::sub_name, kNameMax},
    {"--device-model", &Options::device_model, kNameMax},
    {"--log", &Options::log, 4095},
};

struct NumberOption {
    std::string_view name;
    long Options::*field;
    long min;
    long max;
};
constexpr NumberOption kNumbers[] = {
    {"--log-level", &Options::log_level, 0, 9},    {"--exchanges", &Options::exchanges, 1, 1000000},
    {"--tunnels", &Options::tunnels, 1, 1000000},  {"--links", &Options::links, 1, 1000000},
    {"--seconds", &Options::seconds, 1, 31536000}, {"--max-message", &Options::max_message, 125, 64 << 20},
};

constexpr long kFragmentSizes[] = {8192, 16000};

CommandLine refuse(std::string fault) {
    return {.action = CommandLine::Action::refuse, .options = {}, .fault = std::move(fault)};
}

bool read_number(std::string_view text, long min, long max, long &value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() && value >= min && value <= max;
}

std::string cat(std::initializer_list<std::string_view> parts) {
    std::string out;
    for (const std::string_view part : parts) out += part;
    return out;
}

// Each setter returns an empty text, or what is wrong with the value.
std::string set_text(Options &options, const TextOption &option, std::string_view value) {
    if (value.empty()) return cat({option.name, " is empty"});
    if (value.size() > option.max) {
        return cat({option.name, " '", printable(value), "' has ", std::to_string(value.size()),
                    " characters: more than ", std::to_string(option.max), " do not fit the library's messages"});
    }
    options.*option.field = value;
    return {};
}

std::string set_number(Options &options, const NumberOption &option, std::string_view value) {
    if (read_number(value, option.min, option.max, options.*option.field)) return {};
    return cat({option.name, " '", printable(value), "' is not a number from ", std::to_string(option.min), " to ",
                std::to_string(option.max)});
}

std::string set_fragment_size(Options &options, std::string_view value) {
    for (const long size : kFragmentSizes) {
        if (read_number(value, size, size, options.fragment_size)) return {};
    }
    return cat({"--fragment-size '", printable(value), "' is neither 8192 nor 16000"});
}

bool is_known(std::string_view name) {
    for (const TextOption &option : kTexts) {
        if (option.name == name) return true;
    }
    for (const NumberOption &option : kNumbers) {
        if (option.name == name) return true;
    }
    return name == "--fragment-size";
}

std::string set_option(Options &options, std::string_view name, std::string_view value) {
    for (const TextOption &option : kTexts) {
        if (option.name == name) return set_text(options, option, value);
    }
    for (const NumberOption &option : kNumbers) {
        if (option.name == name) return set_number(options, option, value);
    }
    return set_fragment_size(options, value);
}

}  // namespace

CommandLine parse_command_line(std::span<const char *const> arguments) {
    CommandLine line;
    for (size_t i = 0; i < arguments.size(); i++) {
        std::string_view name = arguments[i];
        if (name == "--help") return {.action = CommandLine::Action::help, .options = {}, .fault = {}};
        if (name == "--version") return {.action = CommandLine::Action::version, .options = {}, .fault = {}};
        const size_t equals = name.find('=');
        const bool joined = equals != std::string_view::npos;
        std::string_view value = joined ? name.substr(equals + 1) : std::string_view();
        if (joined) name = name.substr(0, equals);
        if (!is_known(name)) return refuse(cat({"unknown option '", printable(name), "'"}));
        if (!joined) {
            if (i + 1 == arguments.size()) return refuse(cat({name, " needs a value"}));
            value = arguments[++i];
        }
        std::string fault = set_option(line.options, name, value);
        if (!fault.empty()) return refuse(std::move(fault));
    }
    return line;
}

std::string help_text() {
    return R"(Usage: cloudtunnel-module [OPTION VALUE]...

A module process: it registers with the cloud manager daemon, sets its tunnel up as soon as the daemon sends tunnel
data, answers the platform's requests, and starts over when the tunnel ends. What happens is told on standard output,
one line an event: seconds since start, state, event.

Names (at most 31 characters each)
  --model NAME         the cloud model, and the name the module registers with (desk)
  --sub-name NAME      the second name of the registration (desk-module)
  --device-model NAME  the device model named to the platform (desk-device)

The end. With goals the program ends with status 0 once all of them are met; an open tunnel is closed first.
  --exchanges N        goal: N requests answered
  --tunnels N          goal: N tunnels came up and ended
  --links N            goal: the link to the daemon came up N times
  --seconds N          longest life (3600); status 0 without goals, 1 when a goal is not met by then
  SIGINT or SIGTERM    closes the tunnel and ends with status 0; a second one ends at once

Messages
  --max-message BYTES  a longer message closes the tunnel with status 1009 (1048576)
  --fragment-size N    size of an answer's fragments, 8192 or 16000 (8192); shorter answers are one frame

The library's log
  --log FILE           writes it to FILE; - shows it on standard output, below the timeline's lines
  --log-level N        highest level shown, 0 none to 9 all (5)

  --help               this text
  --version            the version

How messages are answered
  A request, a text or binary frame, is answered with the text "answer: " and the request's bytes. A message in
  fragments announces itself with "length:<decimal>\n" in front of that many payload bytes, and is answered with
  "answer: <decimal> bytes". Pings and closes are answered too.

Examples
  cloudtunnel-module
  cloudtunnel-module --model base --exchanges 5 --seconds 60
  cloudtunnel-module --model desk --links 2 --log module.log --log-level 9

Exit status: 0 the end as wanted, 1 a failure while running, 2 bad options.
)";
}

}  // namespace module_program
