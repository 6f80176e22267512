#include "options.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include <sys/un.h>

#include "text.h"

namespace sim {
namespace {

constexpr std::size_t kTextMax = 127;  // a text in a notification, without its zero byte
constexpr std::size_t kPathMax = sizeof(sockaddr_un::sun_path) - 1;
constexpr std::size_t kHelpColumn = 26;

long count(const std::string &value, long min, long max) {
    const auto read = number(value, min, max);
    if (!read) throw BadOption(cat("'", printable(value), "' is not a number from ", min, " to ", max));
    return *read;
}

std::string text(const std::string &value, std::size_t max) {
    if (value.size() > max) throw BadOption(cat("the text has ", value.size(), " bytes, at most ", max, " fit"));
    return value;
}

std::string filled_text(const std::string &value, std::size_t max) {
    if (value.empty()) throw BadOption("the text is empty");
    return text(value, max);
}

std::vector<std::string> split(std::string_view list) {
    std::vector<std::string> out;
    for (;;) {
        const auto comma = list.find(',');
        if (!list.substr(0, comma).empty()) out.emplace_back(list.substr(0, comma));
        if (comma == std::string_view::npos) return out;
        list.remove_prefix(comma + 1);
    }
}

int tls_version(std::string_view name) {
    if (name == "1.2") return TLS1_2_VERSION;
    if (name == "1.3") return TLS1_3_VERSION;
    throw BadOption(cat("'", printable(name), "' is not 1.2, 1.3 or 1.2-1.3"));
}

void set_tls(Options &options, const std::string &value) {
    const auto dash = value.find('-');
    options.platform.tls_min = tls_version(std::string_view(value).substr(0, dash));
    options.platform.tls_max =
        dash == std::string::npos ? options.platform.tls_min : tls_version(std::string_view(value).substr(dash + 1));
    if (options.platform.tls_min > options.platform.tls_max) throw BadOption("the lower bound is above the upper one");
}

void set_last_down(Options &options, const std::string &value) {
    const auto parts = split(value);
    if (parts.size() != 3) throw BadOption("expected three numbers: REASON,ERRORCODE,ERRNO");
    const auto part = [&](std::size_t i) {
        return static_cast<std::int32_t>(count(parts[i], -2147483648L, 2147483647L));
    };
    options.tunnel_data.last_down = {.reason = part(0), .error_code = part(1), .socket_errno = part(2)};
}

void set_path(Options &options, const std::string &value) {
    if (!value.starts_with('/') || value.find(' ') != std::string::npos) {
        throw BadOption("a path begins with '/' and has no blank");
    }
    options.tunnel_data.path = text(value, kTextMax);
}

void behave(Options &options, std::string_view name, const std::string &value) {
    if (const std::string wrong = set_behaviour(options.behaviour, name, value); !wrong.empty()) throw BadOption(wrong);
}

void add_steps(Options &options, std::string_view script) {
    try {
        for (Step &step : parse_script(script)) options.steps.push_back(std::move(step));
    } catch (const BadStep &bad) {
        throw BadOption(bad.what());
    }
}

void add_step(Options &options, const std::string &line) {
    try {
        options.steps.push_back(parse_step(line));
    } catch (const BadStep &bad) {
        throw BadOption(bad.what());
    }
}

void add_script_file(Options &options, const std::string &name) {
    std::ifstream file(name);
    if (!file) throw BadOption(cat("cannot read ", name));
    const std::string script{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file.bad()) throw BadOption(cat("cannot read ", name));
    add_steps(options, script);
}

struct Row {
    std::string_view name;
    std::string_view value;  // empty: the option is a switch
    std::string_view help;
    void (*apply)(Options &options, const std::string &value);
    std::string_view section = {};  // begins a new section of the help
};

constexpr Row kRows[] = {
    {"--address", "IP", "listen on this address (127.0.0.1)",
     [](Options &o, const std::string &v) { o.platform.address = filled_text(v, kTextMax); }, "The platform"},
    {"--port", "N", "listen on this port; 0 takes any free one (0). With --no-platform: the port to hand out",
     [](Options &o, const std::string &v) { o.platform.port = static_cast<std::uint16_t>(count(v, 0, 65535)); }},
    {"--plain", "", "speak plain TCP. The library does so on port 80 only, and TLS on every other port",
     [](Options &o, const std::string &) { o.platform.plain = true; }},
    {"--tls", "VERSIONS", "TLS versions to offer: 1.2, 1.3 or 1.2-1.3 (1.2-1.3)", set_tls},
    {"--upgrade", "HOW", "answer upgrades by: accept, wrong-accept, silence, close (accept)",
     [](Options &o, const std::string &v) { behave(o, "upgrade", v); }},
    {"--answer-status", "N", "answer upgrades with this HTTP status (101)",
     [](Options &o, const std::string &v) { behave(o, "answer-status", v); }},
    {"--opt1", "HOW", "answer registrations by: text, binary, malformed, silence, close (text)",
     [](Options &o, const std::string &v) { behave(o, "opt1", v); }},
    {"--ret-code", "N", "retCode in that answer; 0 accepts (0)",
     [](Options &o, const std::string &v) { behave(o, "ret-code", v); }},
    {"--opt-type", "N", "optType in that answer; 1 is right (1)",
     [](Options &o, const std::string &v) { behave(o, "opt-type", v); }},
    {"--lenient", "", "report a wrong upgrade request or registration, and go on",
     [](Options &o, const std::string &) { behave(o, "lenient", "on"); }},
    {"--mask", "", "mask the platform's own frames", [](Options &o, const std::string &) { behave(o, "mask", "on"); }},
    {"--any-answer", "", "take whatever message comes next as the answer to a request",
     [](Options &o, const std::string &) { behave(o, "any-answer", "on"); }},
    {"--no-platform", "", "run the daemon only", [](Options &o, const std::string &) { o.with_platform = false; }},

    {"--socket", "PATH", "listen on this unix socket (/tmp/cloudmgr_subconn.sock)",
     [](Options &o, const std::string &v) { o.socket_path = filled_text(v, kPathMax); }, "The daemon"},
    {"--announce", "", "send tunnel data to each model that registers (this is the default)",
     [](Options &o, const std::string &) { o.announce = true; }},
    {"--no-announce", "", "send tunnel data only on the step 'tunnel MODEL'",
     [](Options &o, const std::string &) { o.announce = false; }},
    {"--models", "A,B,...", "announce to these models only (all)",
     [](Options &o, const std::string &v) { o.models = split(v); }},
    {"--no-daemon", "", "run the platform only", [](Options &o, const std::string &) { o.with_daemon = false; }},

    {"--host", "TEXT", "host to hand out; its first address must be IPv4 (127.0.0.1)",
     [](Options &o, const std::string &v) { o.tunnel_data.host = filled_text(v, kTextMax); },
     "What the daemon hands out, and the platform expects back"},
    {"--path", "PATH", "path of the upgrade request (/tunnel)", set_path},
    {"--token", "TEXT", "token (desk-token)",
     [](Options &o, const std::string &v) { o.tunnel_data.token = text(v, kTextMax); }},
    {"--cookie", "TEXT", "cookie (desk-cookie=1)",
     [](Options &o, const std::string &v) { o.tunnel_data.cookie = text(v, kTextMax); }},
    {"--tunnel-value", "N", "tunnel value (1)",
     [](Options &o, const std::string &v) {
         o.tunnel_data.tunnel_value = static_cast<std::uint32_t>(count(v, 0, 4294967295L));
     }},
    {"--last-down", "R,C,E", "reason, error code and socket errno of the main tunnel's last end (0,0,0)",
     set_last_down},

    {"--do", "STEP", "run this step; may be given many times", add_step, "Steps and time"},
    {"--script", "FILE", "run the steps in FILE, one a line; '#' begins a comment line", add_script_file},
    {"--stay", "", "go on serving after the last step, with typed steps",
     [](Options &o, const std::string &) { o.stay = true; }},
    {"--timeout", "SECONDS", "time a step may wait for what it expects (10)",
     [](Options &o, const std::string &v) { o.step_time = std::chrono::seconds(count(v, 1, 3600)); }},
    {"--seconds", "SECONDS", "life of the program: it never runs longer (3600)",
     [](Options &o, const std::string &v) { o.life = std::chrono::seconds(count(v, 1, 86400)); }},

    {"--quiet", "", "no timeline: only what 'status' and 'help' show, and failures on stderr",
     [](Options &o, const std::string &) { o.quiet = true; }, "Else"},
    {"--version", "", "show the version and exit", [](Options &o, const std::string &) { o.version = true; }},
    {"--help", "", "show this text and exit", [](Options &o, const std::string &) { o.help = true; }},
};

constexpr std::string_view kIntroduction =
    R"(Usage: cloudtunnel-sim [OPTION]...

The two ends that a module process with libcloudtunnel talks to, on a desk: the cloud manager daemon on its unix
socket, and the cloud platform behind TLS. The daemon answers registrations and hands out the platform's address; the
platform checks the upgrade request and the OPT1 registration, and exchanges WebSocket frames.

)";

constexpr std::string_view kEpilogue = R"(
A step that fails, or whose time is up, ends the program with status 1 and one line on stderr. After the last step of
--do and --script the program ends with status 0. Without any it serves, and takes steps from stdin: a failed one ends
it when stdin is no terminal. The end of stdin leaves it serving, until SIGINT, SIGTERM or --seconds.

What a module is expected to do: answer each text or binary message with a text, 'answer: ' and the same bytes; answer
pings with pongs and a close with its echo. The library does not show a module which fragment is the last, so a
fragmented message begins with the line 'length:N', whole in the first fragment, and N bytes follow it: the module
answers with 'answer: N bytes'.

The module's frames are read in the library's dialect: a length over 65535 stands in bytes 2 to 5 with zeros in bytes 6
to 9, and the MASK bit is always set. A frame can have that bit and no key, as the library's own close has: one that
stays exactly four bytes short for half a second is read so, and the timeline says it. What the platform sends is
RFC 6455, unmasked unless --mask.

Exit status: 0 all went well, 1 a step or the start failed, 2 the command line is wrong.

Examples:
  Serve any module, and watch:
    cloudtunnel-sim

  Try a module through everything, then exit:
    cloudtunnel-sim --do wait-module --do wait-tunnel --do 'requests 5' --do 'fragmented 20000' --do 'ping hello' \
      --do 'close 1000 bye' --do wait-close --do 'daemon restart 1' --timeout 20 --do wait-module --do wait-tunnel

  See how a module takes a refusal, twice, before it is let in:
    cloudtunnel-sim --ret-code 5 --do 'sleep 4000' --do 'set ret-code 0' --do 'wait-tunnel base'

  Plain, on the one port where the library speaks so:
    cloudtunnel-sim --plain --port 80
)";

const Row &find(std::string_view name) {
    for (const Row &row : kRows) {
        if (row.name == name) return row;
    }
    throw BadOption(cat("unknown option '", printable(name), "'; --help lists all"));
}

}  // namespace

Options parse_options(const std::vector<std::string> &arguments) {
    Options options;
    for (auto i = arguments.begin(); i != arguments.end(); ++i) {
        const auto equals = i->starts_with("--") ? i->find('=') : std::string::npos;
        const std::string name = i->substr(0, equals);
        const Row &row = find(name);
        std::string value;
        if (equals != std::string::npos) {
            if (row.value.empty()) throw BadOption(cat(name, " takes no value"));
            value = i->substr(equals + 1);
        } else if (!row.value.empty()) {
            if (++i == arguments.end()) throw BadOption(cat(name, " needs a value: ", name, " ", row.value));
            value = *i;
        }
        try {
            row.apply(options, value);
        } catch (const BadOption &bad) {
            throw BadOption(cat(name, ": ", bad.what()));
        }
        if (options.help || options.version) return options;
    }
    if (!options.with_platform && !options.with_daemon) throw BadOption("--no-platform and --no-daemon leave nothing");
    if (!options.with_platform && options.platform.port == 0) {
        throw BadOption("--no-platform needs --port: the daemon must hand one out");
    }
    return options;
}

std::string help_text() {
    std::string out(kIntroduction);
    for (const Row &row : kRows) {
        if (!row.section.empty()) out += cat(&row == kRows ? "" : "\n", row.section, ":\n");
        std::string left = cat("  ", row.name, row.value.empty() ? "" : " ", row.value);
        left.resize(std::max(left.size() + 1, kHelpColumn), ' ');
        out += cat(left, row.help, "\n");
    }
    return cat(out, "\nSteps:\n", step_help(), kEpilogue);
}

}  // namespace sim
