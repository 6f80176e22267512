#include "options.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <sys/un.h>

#include "chaos.h"
#include "text.h"

namespace sim {
namespace {

constexpr std::size_t kTextMax = 127;  // a text in a notification, without its zero byte
constexpr std::size_t kFileNameMax = 4095;
constexpr std::size_t kScriptMax = 16 << 20;  // a device or a pipe may have no end
constexpr std::size_t kPathMax = sizeof(sockaddr_un::sun_path) - 1;

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
    throw BadInput(cat("'", printable(name), "' is not 1.2, 1.3 or 1.2-1.3"));
}

void set_address(PlatformOptions &platform, std::string_view text) {
    error_code error;
    platform.address = asio::ip::make_address(std::string(text), error);
    if (error) throw BadInput(cat("'", printable(text), "' is not an IP address"));
}

void set_tls_versions(PlatformOptions &platform, std::string_view text) {
    const auto dash = text.find('-');
    platform.tls_min = tls_version(text.substr(0, dash));
    platform.tls_max = dash == std::string_view::npos ? platform.tls_min : tls_version(text.substr(dash + 1));
    if (platform.tls_min > platform.tls_max) throw BadInput("the lower bound is above the upper one");
}

void set_path(std::string &path, std::string_view text) {
    if (!text.starts_with('/') || text.find(' ') != std::string_view::npos) {
        throw BadInput("a path begins with '/' and has no blank");
    }
    common::set_text(path, kTextMax)(text);
}

void set_last_down(LastDown &last_down, std::string_view text) {
    const auto parts = split(text);
    if (parts.size() != 3) throw BadInput("expected three numbers: REASON,ERRORCODE,ERRNO");
    const auto part = [&](std::size_t i) {
        return static_cast<std::int32_t>(common::read_number(parts[i], INT32_MIN, INT32_MAX));
    };
    last_down = {.reason = part(0), .error_code = part(1), .socket_errno = part(2)};
}

void set_models(std::vector<std::string> &models, std::string_view text) {
    models = split(text);
    if (models.empty()) throw BadInput("no model is named");  // an empty list is that of all
}

void add_script_file(Options &options, const std::string &name) {
    std::ifstream file(name);
    std::string script(kScriptMax + 1, '\0');
    if (!file || file.read(script.data(), std::ssize(script)).bad()) throw BadInput(cat("cannot read ", name));
    script.resize(static_cast<std::size_t>(file.gcount()));
    if (script.size() > kScriptMax) throw BadInput(cat(name, " is longer than ", kScriptMax, " bytes"));
    try {
        for (Step &step : parse_script(script)) options.steps.push_back(std::move(step));
    } catch (const BadInput &bad) {
        throw BadInput(cat(name, ": ", bad.what()));
    }
    options.scripts.push_back(name);
}

Detail detail_of(std::string_view name) {
    constexpr std::string_view kNames[] = {"states", "messages", "frames", "bytes"};  // in the order of Detail
    const auto found = std::ranges::find(kNames, name);
    if (found == std::end(kNames))
        throw BadInput(cat("'", printable(name), "' is none of states, messages, frames, bytes"));
    return static_cast<Detail>(found - kNames);
}

void add_chaos(Options &options, std::string_view text) {
    const long seed = common::read_number(text, 0, UINT32_MAX);
    for (const std::string &step : chaos_steps(seed)) {
        options.chaos += cat(step, "\n");
        options.steps.push_back(parse_step(step));
    }
}

common::Setter set_seconds(std::chrono::seconds &field, long max) {
    return [&field, max](std::string_view text) { field = std::chrono::seconds(common::read_number(text, 1, max)); };
}

// A behaviour as an option of the command line. One that is on or off becomes a switch.
common::Option as_option(common::Option behaviour) {
    behaviour.name.insert(0, "--");
    if (behaviour.argument == kOnOrOff) {
        behaviour.argument.clear();
        behaviour.initial.clear();
        behaviour.set = [set = behaviour.set](std::string_view) { set("on"); };
    }
    return behaviour;
}

common::OptionSection platform_section(Options &options) {
    using common::set_filled_text, common::set_flag, common::set_number;
    PlatformOptions &platform = options.platform;
    common::OptionSection section = {
        "The platform",
        {
            {"--address", "IP", "127.0.0.1", "listen on this address",
             [&platform](std::string_view text) { set_address(platform, text); }},
            {"--port", "N", "0", "listen on this port; 0 takes any free one", set_number(platform.port, 0, 65535)},
            {"--plain", "", "", "speak plain TCP. The library does so on port 80 only, and TLS on every other port",
             set_flag(platform.plain)},
            {"--tls", "VERSIONS", "1.2-1.3", "TLS versions to offer: 1.2, 1.3 or 1.2-1.3",
             [&platform](std::string_view text) { set_tls_versions(platform, text); }},
            {"--certificate", "FILE", "",
             "PEM file with the platform's certificate and its key; without it, a self-signed one is made",
             set_filled_text(platform.certificate, kFileNameMax)},
        }};
    for (common::Option &behaviour : behaviour_options(options.behaviour)) {
        section.options.push_back(as_option(std::move(behaviour)));
    }
    section.options.push_back({"--no-platform", "", "", "run the daemon only; --port is the port that it hands out",
                               set_flag(options.with_platform, false)});
    return section;
}

common::OptionSection daemon_section(Options &options) {
    using common::set_filled_text, common::set_flag;
    return {"The daemon",
            {
                {"--socket", "PATH", "/tmp/cloudmgr_subconn.sock", "listen on this unix socket",
                 set_filled_text(options.socket_path, kPathMax)},
                {"--announce", "", "", "send tunnel data to each model that registers (this is the default)",
                 set_flag(options.announce)},
                {"--no-announce", "", "", "send tunnel data only on the step 'tunnel MODEL'",
                 set_flag(options.announce, false)},
                {"--models", "A,B,...", "", "announce to these models only; without it, to all",
                 [&options](std::string_view text) { set_models(options.models, text); }},
                {"--no-daemon", "", "", "run the platform only", set_flag(options.with_daemon, false)},
            }};
}

common::OptionSection tunnel_data_section(TunnelData &data) {
    using common::set_filled_text, common::set_number, common::set_text;
    return {"The tunnel data that the daemon hands out and the platform expects back",
            {
                {"--host", "TEXT", "127.0.0.1", "host; its first address must be IPv4",
                 set_filled_text(data.host, kTextMax)},
                {"--path", "PATH", "/tunnel", "path of the upgrade request",
                 [&data](std::string_view text) { set_path(data.path, text); }},
                {"--token", "TEXT", "desk-token", "token", set_text(data.token, kTextMax)},
                {"--cookie", "TEXT", "desk-cookie=1", "cookie", set_text(data.cookie, kTextMax)},
                {"--tunnel-value", "N", "1", "tunnel value", set_number(data.tunnel_value, 0, UINT32_MAX)},
                {"--last-down", "R,C,E", "0,0,0", "reason, error code and socket errno of the main tunnel's last end",
                 [&data](std::string_view text) { set_last_down(data.last_down, text); }},
            }};
}

common::OptionSection faults_section(Options &options) {
    return {"Fault injection",
            {
                {"--fault", "FAULT", "", "switch this fault on from the start; may be given many times",
                 [&options](std::string_view line) { options.faults.push_back(parse_fault(line)); }},
                {"--chaos", "SEED", "", "draw steps that switch faults on and off, show them, and run them",
                 [&options](std::string_view seed) { add_chaos(options, seed); }},
            }};
}

common::OptionSection web_section(WebOptions &web) {
    return {"The page to watch and to act on",
            {
                {"--web", "[ADDRESS:]PORT", "",
                 "serve the page there, on the loopback address without ADDRESS; port 0 takes any free one",
                 [&web](std::string_view text) { set_web_address(web, text); }},
                {"--web-token", "TEXT", "",
                 "the secret in the page's address, 16 characters or more; without it, one is drawn",
                 [&web](std::string_view text) { set_web_token(web, text); }},
            }};
}

common::OptionSection steps_section(Options &options) {
    using common::set_flag;
    return {"Steps and time",
            {
                {"--do", "STEP", "", "run this step; may be given many times",
                 [&options](std::string_view text) { options.steps.push_back(parse_step(text)); }},
                {"--script", "FILE", "", "run the steps in FILE, one a line; '#' begins a comment line",
                 [&options](std::string_view name) { add_script_file(options, std::string(name)); }},
                {"--stay", "", "", "go on serving after the last step, with typed steps", set_flag(options.stay)},
                {"--timeout", "SECONDS", "10", "time a step may wait for what it expects",
                 set_seconds(options.step_time, 3600)},
                {"--seconds", "SECONDS", "3600", "time after which the program ends", set_seconds(options.life, 86400)},
                {"--quiet", "", "",
                 "no timeline: only what 'status' and 'help' show, the page's address, and failures on stderr",
                 set_flag(options.quiet)},
            }};
}

// "-" is standard output for --json only: another file would stand in the timeline there.
common::Setter set_file(std::string &field) {
    return [set = common::set_filled_text(field, kFileNameMax)](std::string_view name) {
        if (name == "-") throw BadInput("it needs a file");
        set(name);
    };
}

common::OptionSection events_section(Options &options) {
    using common::set_filled_text;
    return {
        "Events for other programs",
        {
            {"--json", "FILE", "", "write events as JSON, one object a line; - is stdout, without the timeline then",
             set_filled_text(options.json, kFileNameMax)},
            {"--json-detail", "DETAIL", "messages", "how much of them: states, messages, frames or bytes",
             [&options](std::string_view text) { options.json_detail = detail_of(text); }},
            {"--junit", "FILE", "", "write the steps as test cases, in JUnit's XML, when the program ends",
             set_file(options.junit)},
        }};
}

ReplayPace pace_of(std::string_view name) {
    if (name == "answers") return ReplayPace::answers;
    if (name == "recorded") return ReplayPace::recorded;
    throw BadInput(cat("'", printable(name), "' is none of answers, recorded"));
}

common::OptionSection recordings_section(Options &options) {
    using common::set_flag;
    return {"Recordings",
            {
                {"--record", "FILE", "", "record the session: every event, and every byte of both sides",
                 set_file(options.record)},
                {"--record-secrets", "", "",
                 "leave token, cookie, session and handshake key as they are; without it, they are replaced",
                 set_flag(options.record_secrets)},
                {"--replay", "FILE", "", "play the recorded session and compare what the module sends",
                 set_file(options.replay)},
                {"--replay-pace", "PACE", "answers", "play as fast as answers come, or as recorded: answers, recorded",
                 [&options](std::string_view text) { options.replay_pace = pace_of(text); }},
                {"--keylog", "FILE", "", "append the secrets of TLS in the NSS key log format, for packet analysers",
                 set_file(options.keylog)},
            }};
}

// A file that an option names, and whether the program writes it.
struct NamedFile {
    std::string_view option;
    std::string name;
    bool written;
};

std::vector<NamedFile> named_files(const Options &options) {
    std::vector<NamedFile> files = {
        {"--certificate", options.platform.certificate, false},
        {"--socket", options.with_daemon ? options.socket_path : "", true},
        {"--json", options.json == "-" ? "/dev/stdout" : options.json, true},
        {"--junit", options.junit, true},
        {"--replay", options.replay, false},
        {"--record", options.record, true},
        {"--keylog", options.keylog, true},
    };
    for (const std::string &script : options.scripts) files.push_back({"--script", script, false});
    std::erase_if(files, [](const NamedFile &file) { return file.name.empty(); });
    return files;
}

// same_file compares files that exist, and the paths of files that are still to be made. A device keeps nothing that
// could be written over: any number of options may name /dev/null.
bool same_file(const std::string &a, const std::string &b) {
    namespace fs = std::filesystem;
    std::error_code error;
    if (fs::exists(a, error) && fs::exists(b, error)) {
        return fs::equivalent(a, b, error) && !fs::is_character_file(a, error);
    }
    const auto whole = [&error](const fs::path &name) {
        const fs::path path = fs::absolute(name, error);
        const fs::path resolved = fs::weakly_canonical(path, error);
        return error ? path.lexically_normal() : resolved;
    };
    return whole(a) == whole(b);
}

// A file that is written belongs to one option: a second writer would write over it, and a reader would lose it.
void check_files(const Options &options) {
    const std::vector<NamedFile> files = named_files(options);
    for (auto a = files.begin(); a != files.end(); ++a) {
        for (auto b = a + 1; b != files.end(); ++b) {
            if ((a->written || b->written) && same_file(a->name, b->name)) {
                throw BadInput(cat(a->option, " and ", b->option, " name the same file"));
            }
        }
    }
}

constexpr std::string_view kIntroduction =
    R"(Usage: cloudtunnel-sim [OPTION]...

Simulates the two ends that a module process with libcloudtunnel talks to: the cloud manager daemon on its unix socket,
and the cloud platform behind TLS. The daemon answers registrations and hands out the platform's address; the platform
checks the upgrade request and the OPT1 registration, and exchanges WebSocket frames.

)";

constexpr std::string_view kEpilogue = R"(
A step that fails or runs out of time ends the program with status 1 and one line on stderr. After the last step of --do
and --script the program ends with status 0. Without such steps it serves and reads steps from stdin; a failed one ends
the program unless stdin is a terminal. At the end of stdin it goes on serving until SIGINT, SIGTERM,
SIGHUP or --seconds.

A module is expected to answer each message with 'answer: ' and the same bytes, a text with a text, a binary one with
either, a ping with a pong, and a close with its echo. The library does not show a module which fragment is the last, so a message in
fragments begins with the line 'length:N', whole in the first fragment. N bytes follow it, and the module answers with
'answer: N bytes'.

The module's frames are read in the library's dialect: a length over 65535 stands in bytes 2 to 5, bytes 6 to 9 are
zero, and the MASK bit is always set. A frame can have that bit and no key, as the library's own close has: a frame that
stays exactly four bytes short for half a second is read as such, and the timeline shows it. The platform's own frames
follow RFC 6455, and are masked only with --mask.

Exit status: 0 success, 1 a step, the start or a replay failed, 2 the command line, a script or a recording is wrong.

Examples:
  Serve any module, and watch:
    cloudtunnel-sim

  Run a module through everything, then exit:
    cloudtunnel-sim --do wait-module --do wait-tunnel --do 'requests 5' --do 'fragmented 20000' --do 'ping hello' \
      --do 'close 1000 bye' --do wait-close --do 'daemon restart 1' --timeout 20 --do wait-module --do wait-tunnel

  See how a module handles two refusals before it is accepted:
    cloudtunnel-sim --ret-code 5 --do 'sleep 4000' --do 'set ret-code 0' --do 'wait-tunnel base'

  See how a module bears a slow network, and one connection in three that is reset while it registers:
    cloudtunnel-sim --fault 'latency 200ms jitter 50ms' --fault 'reset_peer at=registration probability=33% seed=7'

  Record a session, and later see whether a module still does the same:
    cloudtunnel-sim --record good.session --do wait-tunnel --do 'request hello' --do close --do wait-close
    cloudtunnel-sim --replay good.session

  Without TLS, on the one port where the library uses none:
    cloudtunnel-sim --plain --port 80
)";

}  // namespace

common::OptionTable option_table(Options &options) {
    return {platform_section(options), daemon_section(options),    tunnel_data_section(options.tunnel_data),
            faults_section(options),   web_section(options.web),   steps_section(options),
            events_section(options),   recordings_section(options)};
}

void set_tunnel_data(TunnelData &data, std::string_view name, std::string_view value) {
    const auto options = tunnel_data_section(data).options;
    const auto found = std::ranges::find(options, cat("--", name), &common::Option::name);
    if (found == options.end()) throw BadInput(cat("tunnel data has no '", printable(name), "'"));
    found->set(value);
}

void check_options(const Options &options) {
    if (!options.with_platform && !options.with_daemon) {
        throw BadInput("--no-platform and --no-daemon together leave nothing to run");
    }
    if (!options.with_platform && options.platform.port == 0) {
        throw BadInput("--no-platform needs --port: the daemon must hand one out");
    }
    const WebOptions &web = options.web;
    if (web.wanted && !web.address.is_loopback() && web.token.empty()) {
        throw BadInput(cat("--web on ", web.address, ", beyond this machine, needs --web-token"));
    }
    if (!web.wanted && !web.token.empty()) throw BadInput("--web-token needs --web");
    if (options.record_secrets && options.record.empty()) throw BadInput("--record-secrets needs --record");
    if (!options.replay.empty() && (!options.steps.empty() || options.stay)) {
        throw BadInput("--replay runs no steps: it plays those of the recording");
    }
    if (!options.replay.empty() && !options.junit.empty()) {
        throw BadInput("--junit reports steps, and --replay runs none");
    }
    if (!options.replay.empty() && !options.faults.empty()) {
        throw BadInput("--replay injects no faults: it plays what was recorded");
    }
    check_files(options);
    if (!options.keylog.empty() && (options.platform.plain || !options.with_platform)) {
        throw BadInput("--keylog needs a platform with TLS");
    }
    if (!options.chaos.empty() && options.platform.plain) {
        throw BadInput("--chaos draws faults of TLS too, and --plain has none");
    }
    for (const Fault &fault : options.faults) check_transport(fault, options.platform.plain);
    for (const Step &step : options.steps) {
        if (step.fault) check_transport(*step.fault, options.platform.plain);
    }
}

std::string help_text() {
    Options any;
    return cat(kIntroduction, common::options_help(option_table(any)), "\nFaults:\n", fault_help(), "\nSteps:\n",
               step_help(), kEpilogue);
}

}  // namespace sim
