#include "story.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <iterator>

#include <netdb.h>
#include <sys/epoll.h>

#include "common/text.h"

namespace explain {
namespace {

using common::cat;

constexpr std::size_t kTunnelMax = 4096;   // far more than the 200 models that a process may have
constexpr std::size_t kProcessMax = 1024;  // process ids in one log; older ones are forgotten
constexpr std::size_t kNameMax = 32;       // characters of a model's name that the library keeps

// Numbers of errors on Linux, where every log comes from, whatever system reads it.
constexpr long kNetworkDown = 100;
constexpr long kNetworkUnreachable = 101;
constexpr long kTimedOut = 110;
constexpr long kConnectionRefused = 111;
constexpr long kHostUnreachable = 113;

// OpenSSL's results of SSL_get_error.
constexpr long kSslSyscall = 5;
constexpr long kSslZeroReturn = 6;

constexpr std::string_view kNoTlsError = "error:00000000:";

constexpr long kOpcodeClose = 8;
constexpr int kConnectLevel = 5;

// process_of is the process id that syslog writes in front of a message: "name[1234]: ". 0 without one.
long process_of(std::string_view prefix) {
    const std::size_t end = prefix.rfind("]:");
    if (end == std::string_view::npos) return 0;
    const std::size_t begin = prefix.substr(0, end).rfind('[');
    if (begin == std::string_view::npos) return 0;
    return common::parse_number(prefix.substr(begin + 1, end - begin - 1), 1, 1L << 30).value_or(0);
}

// byte_at is a byte of a dump "01 ff ...", -1 where there is none.
int byte_at(std::string_view hex, std::size_t index) {
    int value = -1;
    if (index * 3 + 2 <= hex.size()) std::from_chars(&hex[index * 3], &hex[index * 3] + 2, value, 16);
    return value;
}

// One that is known in seconds counts more than one in lines.
void keep_longest(Summary &summary, const Outage &outage) {
    const auto rank = [](const Outage &o) { return std::pair(in_seconds(o.from, o.to), span(o.from, o.to)); };
    if (!summary.longest || rank(outage) > rank(*summary.longest)) summary.longest = outage;
}

}  // namespace

// ----------------------------------------------------------------------------------------------------- the messages

struct Story::Rules {
    struct Rule {
        std::string_view format;
        Handler handle;
    };

    // What a message says by itself.
    template <Phase phase>
    static void step(Story &story, const Arguments &a) {
        story.reached(story.find(a.text(0)), phase);
    }
    static void local_failure(Story &story, const Arguments &a) {
        story.fail(story.find(a.text(0)), Cause::local_limit,
                   "the process could not make or prepare the connection: memory or descriptors are short");
    }
    static void tls_not_prepared(Story &story, const Arguments &a) {
        story.fail(story.find(a.text(0)), Cause::local_limit, cat("OpenSSL could not be prepared: ", a.text(1)));
        story.process().follow_up = true;
    }
    static void table_full(Story &story, const Arguments &) {
        story.process().local_error = "a table of the library is full";
        story.fail(story.process().current, Cause::local_limit, story.process().local_error);
    }
    static void memory_short(Story &story, const Arguments &) {
        story.process().local_error = "memory is short";
        story.fail(story.process().current, Cause::local_limit, story.process().local_error);
    }
    template <const char *const &why>
    static void bad_answer(Story &story, const Arguments &a) {
        story.fail(story.find(a.text(0)), Cause::registration_bad_answer, why, true);
    }
    static void send_failed(Story &story, const Arguments &a) {
        story.note(story.by_socket(a.number(0)), cat("sending failed: ", a.text(a.count > 3 ? 3 : 2)));
    }

    static const char *const kNoJson;
    static const char *const kNoType;
    static const char *const kWrongType;
    static const char *const kNoCode;
    static const Rule kAll[];
};

const char *const Story::Rules::kNoJson = "the platform's answer to the registration is no JSON";
const char *const Story::Rules::kNoType = "the platform's answer to the registration has no optType";
const char *const Story::Rules::kWrongType = "the platform's answer to the registration has another optType than 1";
const char *const Story::Rules::kNoCode = "the platform's answer to the registration has no retCode";

constexpr Story::Rules::Rule Story::Rules::kAll[] = {
    // The process and its daemon.
    {"Create epoll ok, epoll fd %d.", [](Story &s, const Arguments &) { s.process_ended("the process started anew"); }},
    {"Deinit epoll ok.", [](Story &s, const Arguments &) { s.process_ended("the process ended its use of the library"); }},
    {"token %s cookie %s",
     [](Story &s, const Arguments &a) {
         s.secrets_.learn(a.text(0));
         s.secrets_.learn(a.text(1));
     }},
    {"buffer len [%d] detail [%s]", [](Story &s, const Arguments &a) { s.notified(a.text(1)); }},
    {"getmodNodeByName is NULL",
     [](Story &s, const Arguments &) {
         s.note(nullptr, "the daemon sent tunnel data for a model that no module of this process has registered");
     }},
    {"[libcloudtunnel client]connect kyrcloud error:%s\n",
     [](Story &s, const Arguments &a) {
         s.note(nullptr, cat("no link: ", a.text(0), "; the library tries again every 10 s. Look at: whether the cloud "
                                                     "manager daemon runs"));
     }},
    {"[libcloudtunnel client] start reconnecting to server because epoll error.",
     [](Story &s, const Arguments &) {
         s.note(nullptr, "the link broke; the library tries again every 10 s. Look at: why the cloud manager daemon went");
     }},
    {"urllist_set modelname. %s %s %s %d %d",
     [](Story &s, const Arguments &a) { s.set_model_url(a.text(0), a.text(1), a.text(2), a.number(3), a.number(4)); }},
    {"Set Addr error, ret =%d.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.process().set_tunnel;
         if (!tunnel) return;
         tunnel->resolve_error = cat("the name ", s.process().set_host, " was not resolved: ",
                                     gai_strerror(static_cast<int>(a.number(0))));
         s.note(tunnel, tunnel->resolve_error);
     }},
    {"Set Addr Success, servername = %s.",
     [](Story &s, const Arguments &) {
         if (s.process().set_tunnel) s.process().set_tunnel->resolve_error.clear();
     }},

    // A set-up begins.
    {"Start to websocket connect for cloud model [%s] dev model [%s].",
     [](Story &s, const Arguments &a) { s.start(a.text(0)); }},
    {"Start to connect for model [%s].", step<Phase::started>},
    {"family %d, ip %s 0x%x, port %d, configport %d, v3port %d.",
     [](Story &s, const Arguments &a) {
         if (!s.process().current) return;
         const bool linked = a.number(3) == a.number(5);  // the library takes the configured port in its place then
         s.process().current->address = cat(a.text(1), ":", linked ? a.text(4) : a.text(3));
     }},
    {"Add socket connect node ok, model %s, socket %d.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         s.reached(tunnel, Phase::connecting);
         if (tunnel) s.bind(*tunnel, a.number(1));
     }},
    {"[model %s]Ssl connect ret %d, errcode %d [%s]", step<Phase::tcp>},
    {"[Model %s]Succeeded in connecting ssl server.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         s.reached(tunnel, Phase::tls);
         if (tunnel) tunnel->tls = true;
     }},
    {"[Model %s]Send Websocket handshake successfully.", step<Phase::upgrade_sent>},
    {"[Model %s]Rcv http msg.", [](Story &s, const Arguments &a) { s.find(a.text(0)); }},
    {"[Model %s]msg rcv merge:", [](Story &s, const Arguments &a) { s.find(a.text(0)); }},
    {"Rcv http resp status %s.",
     [](Story &s, const Arguments &a) {
         if (s.process().current) s.process().current->status = a.text(0);
     }},
    {"Rcv Location %s.",
     [](Story &s, const Arguments &a) {
         if (s.process().current) s.process().current->location = a.text(0);
     }},
    {"Rcv Sec-WebSocket-Accept %s.",
     [](Story &s, const Arguments &a) {
         if (s.process().current) s.process().current->accept = a.text(0);
     }},
    {"[V3 Model %s] Rcv acception check ok.", step<Phase::upgraded>},
    {"[Model %s]Send Websocket OPT1 successfully.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         s.reached(tunnel, Phase::registering);
         if (tunnel) tunnel->registered = s.now_;
     }},
    {"Modify socket connect node ok, sock %d.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.by_socket(a.number(0));
         if (!tunnel) tunnel = s.process().current;  // the log began behind the message that names the socket
         if (!tunnel || tunnel->phase != Phase::registering) return;
         s.bind(*tunnel, a.number(0));
         s.open(*tunnel, s.now_, false);
     }},
    {"[Model %s]Rcv websocket msg.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         if (tunnel && !tunnel->seen) s.open(*tunnel, s.now_, true);
     }},
    {"V3 [%s] ws request rcv message.",
     [](Story &s, const Arguments &a) {  // the log began while the answer to the registration was awaited
         Tunnel *tunnel = s.find(a.text(0));
         if (tunnel && !tunnel->seen) s.reached(tunnel, Phase::registering);
     }},

    // A set-up fails.
    {"Failed to connect for model [%s] because no addrinfo.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         if (!tunnel) return;
         if (tunnel->resolve_error.empty()) {
             s.fail(tunnel, Cause::no_tunnel_data, "the library has no address for the model: no tunnel data came");
         } else {
             s.fail(tunnel, Cause::name_not_resolved, tunnel->resolve_error);
         }
     }},
    {"[Model %s][Socket %d]Failed to connect, errno %d [%s].",
     [](Story &s, const Arguments &a) {
         if (Tunnel *tunnel = s.find(a.text(0))) {
             s.end_by_connect_failure(*tunnel, {a.number(2), std::string(a.text(3))});
         }
     }},
    {"Connect proc failed, event %d, ret %d iErr %d msg %s.",
     [](Story &s, const Arguments &a) { s.connect_proc_failed(a.number(1), a.number(2), a.text(3)); }},
    {"[Model %s][Socket %d]connect time out process.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.bound(a.text(0), a.number(1));
         const bool in_tls = tunnel && tunnel->phase >= Phase::tcp && tunnel->phase < Phase::up;
         s.fail(tunnel, in_tls ? Cause::tls_timeout : Cause::connect_timeout,
                in_tls ? "the TLS handshake did not end within the 120 s that a connection has"
                       : "the connection did not come about within 120 s");
     }},
    {"[Model %s]Ssl connect ret %d, errcode %d [%s]",
     [](Story &s, const Arguments &a) {
         const bool ended = a.number(2) == kSslSyscall || a.number(2) == kSslZeroReturn;
         s.fail(s.find(a.text(0)), Cause::tls_refused,
                ended ? std::string("the platform ended the connection during the TLS handshake")
                      : cat("the TLS handshake failed: ", a.text(3)));
         s.process().follow_up = true;
     }},
    {"[Model %s]Send Websocket handshake failed.",
     [](Story &s, const Arguments &a) {
         s.fail(s.find(a.text(0)), Cause::upgrade_not_sent, "the upgrade request could not be made");
     }},
    {"[Model %s][Socket %d] connect failed.",
     [](Story &s, const Arguments &a) {  // another message comes first unless memory is short
         Tunnel *tunnel = s.bound(a.text(0), a.number(1));
         if (tunnel && tunnel->phase != Phase::down) local_failure(s, a);
     }},
    {"[V3 Model %s] handshake rcv not expect http resp status.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         if (!tunnel) return;
         const std::string with =
             tunnel->status.empty() ? "another HTTP status than 101" : cat("HTTP status ", tunnel->status);
         const std::string to = tunnel->location.empty() ? "" : cat(", to ", tunnel->location);
         s.fail(tunnel, Cause::upgrade_refused, cat("the platform answered the upgrade with ", with, to), true);
     }},
    {"[V3 Model %s] Rcv acception error.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         if (!tunnel) return;
         const bool all_shown = !tunnel->status.empty();  // level 6, which would show the header too
         s.fail(tunnel, Cause::accept_wrong,
                all_shown && tunnel->accept.empty()
                    ? "the answer 101 has no header spelled Sec-WebSocket-Accept, as the library reads it"
                    : "the Sec-WebSocket-Accept of the answer 101 does not belong to the request's key",
                true);
     }},
    {"V3 ws cnct msg send time out [sock %d][name %s][fsm %s].",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.bound(a.text(1), a.number(0));
         const bool registering = a.text(2) == "WS_CONNECT";
         s.fail(tunnel, registering ? Cause::registration_no_answer : Cause::upgrade_no_answer,
                cat("the platform did not answer the ", registering ? "registration" : "upgrade request", " within 30 s"));
     }},
    {"[Model %s]Send Websocket OPT1 failed.",
     [](Story &s, const Arguments &a) {
         s.fail(s.find(a.text(0)), Cause::registration_not_sent, "the registration could not be sent");
     }},
    {"[V3 Model %s] Request rcv error opt code %d. Regist again.",
     [](Story &s, const Arguments &a) {
         const bool close = a.number(1) == kOpcodeClose;
         s.fail(s.find(a.text(0)), close ? Cause::closed_in_set_up : Cause::registration_bad_answer,
                close ? std::string("the platform sent a close in place of an answer to the registration")
                      : cat("the platform answered the registration with a frame of opcode ", a.text(1), ", not a text"),
                true);
     }},
    {"[V3 Model %s] Parsing json error.", bad_answer<kNoJson>},
    {"[V3 Model %s] request rcv otptype null", bad_answer<kNoType>},
    {"[V3 Model %s] request rcv wrong opt type %d", bad_answer<kWrongType>},
    {"[V3 Model %s] request rcv retcode null", bad_answer<kNoCode>},
    {"[V3 Model %s] request rcv error ret code %d. Regist again.",
     [](Story &s, const Arguments &a) {
         s.fail(s.find(a.text(0)), Cause::registration_refused,
                cat("the platform refused the registration with retCode ", a.text(1)), true);
     }},
    {"[Model %s]Create socket failed.", local_failure},
    {"[Model %s]Failed to set socket %d opt.", local_failure},
    {"[Model %s]Failed to add socket %d to epoll.", local_failure},
    {"[model %s]malloc ssl node failed.", tls_not_prepared},
    {"[model %s]Create ssl ctx error [%s]", tls_not_prepared},
    {"[model %s] create ssl error [%s]", tls_not_prepared},
    {"[model %s] ssl set fd error [%s]", tls_not_prepared},
    {"Daemon socket connect reach max.", table_full},
    {"Daemon ws connect reach max.", table_full},
    {"Malloc fo connect node failed.", memory_short},
    {"Malloc fo ws connect node failed.", memory_short},
    {"Connect node of model [%s] is exist.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         if (!tunnel) return;
         s.fail(tunnel, Cause::started_again,
                tunnel->phase == Phase::up
                    ? "the module started the model again while its tunnel stood: the library closed both"
                    : "the module started the model while a connection of it stood: the library closed both");
     }},
    {"Model %s ws connect is exist.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         if (tunnel) tunnel->restarting = false;
         s.note(tunnel, "started a second time during its set-up: refused, the first set-up goes on");
     }},

    // An open tunnel ends, or a connection during the set-up.
    {"[Model %s][Socket %d]Rcv msg rcv error %d, errno %d [%s].",
     [](Story &s, const Arguments &a) {
         s.broken(s.bound(a.text(0), a.number(1)), Cause::connection_broken, a.text(4));
     }},
    {"[Model %s][Socket %d]Rcv msg error %d, errno %d [%s].",
     [](Story &s, const Arguments &a) { s.broken(s.bound(a.text(0), a.number(1)), Cause::ended_by_platform, ""); }},
    {"[Model %s][Socket %d]Ssl read ret %d, errcode %d [%s], errno [%d][%s].",
     [](Story &s, const Arguments &a) {
         const std::string_view reason = a.text(4);
         const bool eof = reason.find("unexpected eof") != std::string_view::npos ||
                          reason.find("0A000126") != std::string_view::npos;
         const bool ended = a.number(3) == kSslZeroReturn || eof || (a.number(3) == kSslSyscall && a.number(5) == 0);
         s.broken(s.bound(a.text(0), a.number(1)), ended ? Cause::ended_by_platform : Cause::connection_broken,
                  a.number(3) == kSslSyscall ? a.text(6) : reason);
     }},
    {"[Model %s]Rcv websocket error.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.find(a.text(0));
         if (tunnel) tunnel->bad_frame = tunnel->phase != Phase::down;
     }},
    {"Socket data proc error,[model %s][sock %d][event %d][ret %d]",
     [](Story &s, const Arguments &a) { s.dispatch_failed(a.text(0), a.number(1), a.number(2), a.number(3)); }},
    {"[Model %s] rcv close msg, status %d, reason [%s].",
     [](Story &s, const Arguments &a) {
         const std::string reason = a.text(2).empty() ? "no reason" : cat("the reason \"", a.text(2), "\"");
         s.fail(s.find(a.text(0)), Cause::closed_by_platform,
                cat("the platform closed the tunnel with status ", a.text(1), " and ", reason));
     }},
    {"[Model %s]Close socket %d.",
     [](Story &s, const Arguments &a) {
         s.fail(s.bound(a.text(0), a.number(1)), Cause::closed_by_platform,
                "the platform closed the tunnel, without a status that the library knows");
     }},
    {"[Socket %d]send close frame.",
     [](Story &s, const Arguments &a) {
         Tunnel *tunnel = s.by_socket(a.number(0));
         if (tunnel && tunnel->phase == Phase::up) {
             s.fail(tunnel, Cause::closed_here,
                    tunnel->daemon_closed ? "the module closed the tunnel, after the daemon's notice that it is closed"
                                          : "the module closed the tunnel");
         }
     }},
    {"[Socket %d]Send https message write error, result %d, errno = %d, message [%s],ssl error code = %d "
     "[%s],loop count = %d.",
     send_failed},
    {"[Socket %d]Send https message retry count reach max, result %d, message [%s].", send_failed},
    {"[Socket %d]Send http message retry count reach max, result %d, message [%s].", send_failed},
    {"Del socket connect node ok, sock %d.", [](Story &s, const Arguments &a) { s.socket_deleted(a.number(0)); }},
};

namespace {

// A rule whose message the library no longer has stops the build.
template <class Rule, std::size_t n>
consteval bool all_gathered(const Rule (&rules)[n]) {
    return std::all_of(std::begin(rules), std::end(rules), [](const Rule &rule) { return is_gathered(rule.format); });
}

}  // namespace

Story::Story(Report &report, Secrets &secrets, std::string model)
    : report_(report), secrets_(secrets), model_(std::move(model)), handlers_(std::size(kFormats)) {
    static_assert(all_gathered(Rules::kAll));
    for (const Rules::Rule &rule : Rules::kAll) {
        const auto *format = std::find_if(std::begin(kFormats), std::end(kFormats),
                                          [&](const Format &known) { return known.text == rule.format; });
        handlers_[static_cast<std::size_t>(format - kFormats)] = rule.handle;
    }
}

void Story::take(const Match &match, std::string_view prefix, const Moment &at) {
    process_ = process_of(prefix);
    if (processes_.size() >= kProcessMax && !processes_.contains(process_)) {
        for (auto &[id, known] : processes_) flush(known.repeats);
        processes_.clear();
        sockets_.clear();
    }
    now_ = at;
    handlers_[match.format](*this, match.arguments);
}

// ----------------------------------------------------------------------------------------------- who is spoken of

// find makes a tunnel the current one of its process. Null for an empty name, and when there are too many.
Story::Tunnel *Story::find(std::string_view model) {
    model = model.substr(0, kNameMax);
    auto found = tunnels_.find(model);
    if (found == tunnels_.end()) {
        if (model.empty()) return nullptr;
        if (tunnels_.size() >= kTunnelMax) {
            left_out_++;
            return nullptr;
        }
        found = tunnels_.try_emplace(std::string(model)).first;
        found->second.summary.tunnel = model;
        found->second.process = process_;
    }
    process().current = &found->second;
    return &found->second;
}

Story::Tunnel *Story::by_socket(long sock) {
    const auto found = sockets_.find({process_, sock});
    if (found == sockets_.end()) return nullptr;
    process().current = found->second;
    return found->second;
}

Story::Tunnel *Story::bound(std::string_view model, long sock) {
    Tunnel *tunnel = find(model);
    if (tunnel) bind(*tunnel, sock);
    return tunnel;
}

void Story::bind(Tunnel &tunnel, long sock) { sockets_[{process_, sock}] = &tunnel; }
void Story::unbind(long sock) { sockets_.erase({process_, sock}); }

// ------------------------------------------------------------------------------------------------- a set-up's steps

void Story::start(std::string_view model) {
    Tunnel *tunnel = find(model);
    if (!tunnel) return;
    if (tunnel->phase != Phase::down && tunnel->process != process_) {
        fail(tunnel, Cause::process_ended, "another process has the model now");
    }
    infer_hand_off(*tunnel);
    if (tunnel->phase == Phase::down) {
        reached(tunnel, Phase::started);
        tunnel->started = now_;
        if (!tunnel->down_since) tunnel->down_since = now_;
    } else {
        // What comes of it depends on what stands: the next messages tell.
        tunnel->restarting = true;
        tunnel->restarted = now_;
    }
}

// reached moves a set-up on. A step in front of the one it has reached belongs to another set-up, whose start can be
// missing in the log.
void Story::reached(Tunnel *tunnel, Phase phase) {
    if (!tunnel) return;
    const bool step_back = phase == Phase::connecting && tunnel->phase >= Phase::connecting;
    if (tunnel->phase != Phase::down && (tunnel->phase == Phase::up || step_back)) {
        if (phase == Phase::started) return;  // it may still be refused
        const std::optional<Moment> restarted = tunnel->restarting ? tunnel->restarted : std::nullopt;
        fail(tunnel, Cause::unknown, "the log does not show how it ended; another set-up followed");
        reached(tunnel, phase);
        tunnel->started = restarted;
        return;
    }
    if (tunnel->phase == Phase::down) {
        tunnel->summary.attempts++;
        tunnel->started.reset();
        tunnel->tls = tunnel->restarting = tunnel->data_reset = tunnel->hung_up = tunnel->bad_frame = false;
        tunnel->follow_up = tunnel->daemon_closed = false;
        tunnel->status.clear();
        tunnel->location.clear();
        tunnel->accept.clear();
        tunnel->address.clear();
    }
    tunnel->seen = true;
    tunnel->process = process_;
    tunnel->phase = std::max(tunnel->phase, phase);
}

void Story::open(Tunnel &tunnel, const Moment &at, bool inferred) {
    const bool before_log = !tunnel.seen;
    const std::string how =
        inferred ? (before_log ? "up when the log begins" : "up, inferred: nothing refused it") : "up";
    std::string steps;
    if (!before_log && tunnel.phase == Phase::registering) steps = cat(": ", came_up(tunnel), " and the registration");
    tunnel.seen = true;
    tunnel.process = process_;
    tunnel.phase = Phase::up;
    tunnel.summary.is_up = true;
    if (!before_log) tunnel.summary.came_up++;
    if (tunnel.down_since) {
        keep_longest(tunnel.summary, {.from = *tunnel.down_since, .to = at});
        tunnel.down_since.reset();
    }
    tunnel.up_since = at;
    report(tunnel.repeats, false,
           {.kind = Event::Kind::up, .tunnel = tunnel.summary.tunnel, .what = how + steps, .since = tunnel.started},
           at);
}

// infer_hand_off takes a registration that was sent for accepted, where the log would not show the hand-off.
void Story::infer_hand_off(Tunnel &tunnel) {
    if (tunnel.phase == Phase::registering && levels_seen_ >> kConnectLevel == 0) {
        const Moment at = tunnel.registered;
        open(tunnel, at, true);
    }
}

std::string Story::came_up(const Tunnel &tunnel) {
    if (tunnel.phase < Phase::tcp) return "nothing";
    std::string out = tunnel.address.empty() ? "TCP" : cat("TCP to ", tunnel.address);
    if (tunnel.tls || tunnel.phase == Phase::tls) out += ", TLS";
    if (tunnel.phase >= Phase::upgraded) out += ", upgrade";
    return out;
}

std::string_view Story::stopped_at(const Tunnel &tunnel) {
    switch (tunnel.phase) {
        case Phase::down:
        case Phase::started:
            return "before the connection";
        case Phase::connecting:
            return "at the connection";
        case Phase::tcp:
            return "at TLS";
        case Phase::tls:
        case Phase::upgrade_sent:
            return "at the upgrade";
        case Phase::upgraded:
        case Phase::registering:
            return "at the registration";
        case Phase::up:
            break;
    }
    return "";
}

// ------------------------------------------------------------------------------------------------------------ ends

// fail ends what the tunnel is in: its life if it is up, else its set-up, which may have begun before the log.
// `dispatched`: the library's dispatch will log the failure once more.
void Story::fail(Tunnel *tunnel, Cause cause, std::string sentence, bool dispatched) {
    if (!tunnel) return;
    const bool of_registration = cause == Cause::registration_refused || cause == Cause::registration_bad_answer ||
                                 cause == Cause::registration_no_answer || cause == Cause::closed_in_set_up ||
                                 cause == Cause::started_again;
    if (!of_registration) infer_hand_off(*tunnel);
    const Phase needed = row_of(cause).reached;
    if (tunnel->phase == Phase::down && needed == Phase::up && !tunnel->seen) open(*tunnel, now_, true);
    if (tunnel->phase == Phase::down && needed == Phase::up) return;  // an end that is known already
    const bool was_up = tunnel->phase == Phase::up;
    Event event{.tunnel = tunnel->summary.tunnel, .cause = cause, .sentence = std::move(sentence)};
    if (was_up) {
        event.kind = Event::Kind::ended;
        event.what = "the tunnel ended";
        event.since = tunnel->up_since;
        tunnel->summary.ended[static_cast<std::size_t>(cause)]++;
        if (tunnel->data_reset) event.sentence += "; tunnel data had set the open tunnel back to HTTP before";
    } else {
        if (tunnel->phase < needed || tunnel->phase == Phase::down) reached(tunnel, std::max(needed, Phase::started));
        event.kind = Event::Kind::failed;
        const std::string up = came_up(*tunnel);
        event.what = cat("the set-up failed ", stopped_at(*tunnel), "; ", up, " came up");
        event.since = tunnel->started;
        tunnel->summary.failed[static_cast<std::size_t>(cause)]++;
    }
    tunnel->phase = Phase::down;
    tunnel->summary.is_up = false;
    tunnel->follow_up = dispatched;
    tunnel->restarting = false;
    if (!tunnel->down_since) tunnel->down_since = was_up ? now_ : tunnel->started.value_or(now_);
    report(tunnel->repeats, !was_up, std::move(event), now_);
}

// broken ends a tunnel whose connection cannot be read any more. The dispatch logs that once more.
void Story::broken(Tunnel *tunnel, Cause cause, std::string_view reason) {
    if (!tunnel) return;
    infer_hand_off(*tunnel);
    const bool says_nothing = reason.empty() || reason == "Success" || reason.starts_with(kNoTlsError);
    const std::string why = says_nothing ? "" : cat(" (", reason, ")");
    const std::string_view what =
        cause == Cause::ended_by_platform ? "the platform ended the connection" : "the connection broke";
    if (tunnel->phase == Phase::up || !tunnel->seen) {
        fail(tunnel, cause, cat(what, cause == Cause::ended_by_platform ? " without a close" : "", why), true);
    } else if (tunnel->phase != Phase::down) {
        const std::string_view awaited = tunnel->phase >= Phase::upgraded ? "registration" : "upgrade";
        fail(tunnel, Cause::closed_in_set_up, cat(what, " in place of an answer to the ", awaited, why), true);
    }
}

void Story::process_ended(std::string_view how) {
    for (auto &[name, tunnel] : tunnels_) {
        if (tunnel.process == process_ && tunnel.phase != Phase::down) {
            fail(&tunnel, Cause::process_ended, std::string(how));
        }
    }
    flush(process().repeats);
    std::erase_if(sockets_, [this](const auto &entry) { return entry.first.first == process_; });
    processes_.erase(process_);
}

void Story::end_by_connect_failure(Tunnel &tunnel, const ConnectFailure &failure) {
    const Cause cause =
        failure.error == kConnectionRefused ? Cause::connect_refused
        : failure.error == kNetworkDown || failure.error == kNetworkUnreachable || failure.error == kHostUnreachable
            ? Cause::unreachable
        : failure.error == kTimedOut ? Cause::connect_timeout
                                     : Cause::connect_failed;
    const std::string to = tunnel.address.empty() ? "" : cat(" to ", tunnel.address);
    const std::string why = failure.error == 0 ? "the connection was refused or hung up" : failure.text;
    fail(&tunnel, cause, cat("connecting", to, " failed: ", why));
}

// The message names neither model nor socket. The deletion of the socket, which follows, does; where the log's level
// hides that, it is the only tunnel that is connecting, or the only one at all.
void Story::connect_proc_failed(long result, long error, std::string_view text) {
    if (std::exchange(process().follow_up, false) || result == 0) return;
    const ConnectFailure failure{error, std::string(text)};
    if (levels_seen_ >> kConnectLevel != 0) {
        process().connect_failure = failure;
        return;
    }
    std::vector<Tunnel *> connecting;
    std::vector<Tunnel *> all;
    for (auto &[name, tunnel] : tunnels_) {
        if (tunnel.process != process_) continue;
        all.push_back(&tunnel);
        if (tunnel.phase > Phase::down && tunnel.phase < Phase::upgrade_sent) connecting.push_back(&tunnel);
    }
    const auto &candidates = connecting.empty() ? all : connecting;
    if (candidates.size() == 1) {
        end_by_connect_failure(*candidates.front(), failure);
    } else {
        note(nullptr, cat("a connection failed, of a tunnel that the log does not name: ", text));
    }
}

void Story::socket_deleted(long sock) {
    Tunnel *tunnel = by_socket(sock);
    const std::optional<ConnectFailure> failure = std::exchange(process().connect_failure, std::nullopt);
    unbind(sock);
    if (!tunnel || tunnel->phase == Phase::down) return;
    if (failure && tunnel->phase < Phase::upgrade_sent) {
        end_by_connect_failure(*tunnel, *failure);
    } else if (tunnel->phase != Phase::up) {
        fail(tunnel, Cause::unknown, "this side gave the set-up up");
    } else if (tunnel->hung_up) {
        fail(tunnel, Cause::connection_broken, "the kernel reported the end of the connection");
    } else {
        fail(tunnel, Cause::closed_here,
             tunnel->daemon_closed
                 ? "this side closed the connection, after the daemon's notice that the tunnel is closed"
                 : "this side closed the connection");
    }
}

void Story::dispatch_failed(std::string_view model, long sock, long events, long result) {
    Tunnel *tunnel = bound(model, sock);
    if (!tunnel) return;
    const bool hung_up = (events & (EPOLLERR | EPOLLHUP)) != 0;
    if (result == 0) {  // the connection goes on, or the messages that follow tell how it ends
        tunnel->hung_up = tunnel->hung_up || hung_up;
        return;
    }
    if (std::exchange(tunnel->follow_up, false)) return;
    infer_hand_off(*tunnel);
    const bool up = tunnel->phase == Phase::up || !tunnel->seen;
    if ((events & EPOLLIN) == 0) {
        const std::string_view what = "the kernel reported the end of the connection";
        fail(tunnel, up ? Cause::connection_broken : Cause::closed_in_set_up, std::string(what));
    } else if (tunnel->bad_frame) {
        fail(tunnel, up ? Cause::bad_frame : Cause::closed_in_set_up, "a frame of the platform could not be read");
    } else if (up) {
        fail(tunnel, Cause::refused_by_module,
             "the module's receive callback returned an error, which ends the tunnel");
    } else if (tunnel->phase != Phase::down) {
        fail(tunnel, Cause::closed_in_set_up, "the platform's answer could not be read, or came out of turn");
    }
}

// ------------------------------------------------------------------------------------------------ daemon and data

void Story::set_model_url(std::string_view model, std::string_view host, std::string_view path, long type, long port) {
    Tunnel *tunnel = find(model);
    const bool given = host != "(null)";
    process().set_tunnel = given ? tunnel : nullptr;
    process().set_host = host;
    if (!tunnel) return;
    if (tunnel->phase == Phase::up) tunnel->data_reset = type == 0;
    if (given) note(tunnel, cat("tunnel data: host ", host, ", path ", path, ", port ", port));
}

// A notification of the daemon, as printHex shows it: type, sub-type and model. Tunnel data have a message of their own
// at level 5; the notice that the tunnel is closed has none.
void Story::notified(std::string_view hex) {
    constexpr std::string_view kNotification = "bc be be be ";
    constexpr std::size_t kSubType = 8;
    constexpr int kTunnelData = 1;
    constexpr int kTunnelClosed = 2;
    constexpr std::size_t kName = 16;
    const int sub_type = byte_at(hex, kSubType);
    if (!hex.starts_with(kNotification) || (sub_type != kTunnelData && sub_type != kTunnelClosed)) return;
    std::string model;
    for (std::size_t i = kName; i < kName + kNameMax && byte_at(hex, i) > 0; i++) {
        model += static_cast<char>(byte_at(hex, i));
    }
    Tunnel *tunnel = find(model);
    if (!tunnel) return;
    tunnel->process = process_;
    if (sub_type == kTunnelClosed) {
        tunnel->daemon_closed = true;
        note(tunnel, "the daemon's notice: the tunnel is closed");
    } else if (levels_seen_ >> kConnectLevel == 0) {
        note(tunnel, "tunnel data came");
    }
}

// ---------------------------------------------------------------------------------------------------- the report

void Story::note(Tunnel *tunnel, std::string what) {
    Repeats &repeats = tunnel ? tunnel->repeats : process().repeats;
    report(repeats, true, {.tunnel = tunnel ? tunnel->summary.tunnel : "", .what = std::move(what)}, now_);
}

// report shows an event at once, and counts it when it only repeats the one before.
void Story::report(Repeats &repeats, bool collapse, Event event, const Moment &at) {
    if (!model_.empty() && !event.tunnel.empty() && event.tunnel != model_) return;
    const Event &last = repeats.event;
    if (collapse && last.kind == event.kind && last.what == event.what && last.sentence == event.sentence) {
        repeats.times++;
        repeats.last = at;
        return;
    }
    flush(repeats);
    report_.event(at, event);
    repeats.event = std::move(event);
}

void Story::flush(Repeats &repeats) {
    if (repeats.times > 0) report_.repeated(repeats.last, repeats.event, repeats.times);
    repeats.times = 0;
}

void Story::finish(const Moment &at) {
    for (auto &[name, tunnel] : tunnels_) {
        infer_hand_off(tunnel);
        flush(tunnel.repeats);
    }
    for (auto &[id, known] : processes_) flush(known.repeats);
    for (auto &[name, tunnel] : tunnels_) {
        if (!model_.empty() && name != model_) continue;
        if (tunnel.down_since) keep_longest(tunnel.summary, {.from = *tunnel.down_since, .to = at, .open = true});
        report_.summary(tunnel.summary);
    }
}

}  // namespace explain
