#include "causes.h"

namespace explain {
namespace {

constexpr CauseRow kRows[] = {
    {Cause::no_tunnel_data, Phase::started, "no-tunnel-data", "no tunnel data",
     "whether the daemon sent tunnel data for this model before the set-up began, and whether the module starts only "
     "in "
     "its open callback"},
    {Cause::name_not_resolved, Phase::started, "name-not-resolved", "the name was not resolved",
     "the device's name servers, and the host in the tunnel data"},
    {Cause::connect_refused, Phase::connecting, "connect-refused", "connection refused",
     "whether the platform listens on that port, the port in the tunnel data, and firewalls"},
    {Cause::unreachable, Phase::connecting, "unreachable", "network or host unreachable",
     "the device's uplink, its routes and its gateway"},
    {Cause::connect_failed, Phase::connecting, "connect-failed", "the connection failed",
     "the error named, the network of the device, and the address in the tunnel data"},
    {Cause::connect_timeout, Phase::connecting, "connect-timeout", "no TCP connection in time",
     "firewalls that drop packets silently, the address, and the uplink"},
    {Cause::tls_timeout, Phase::tcp, "tls-timeout", "TLS not finished in time",
     "whether the port speaks TLS, and a proxy or a small MTU on the way"},
    {Cause::tls_refused, Phase::tcp, "tls-refused", "TLS refused",
     "whether the port speaks TLS, the versions and ciphers of both ends, the certificate and the clock where OpenSSL "
     "is "
     "told to check them"},
    {Cause::upgrade_not_sent, Phase::tcp, "upgrade-not-sent", "the upgrade request was not sent",
     "the errors in front of it, and the memory of the process"},
    {Cause::upgrade_refused, Phase::upgrade_sent, "upgrade-refused", "upgrade refused",
     "the path, token and cookie of the tunnel data, and a proxy in front of the platform; level 6 shows the status"},
    {Cause::accept_wrong, Phase::upgrade_sent, "accept-wrong", "wrong accept key",
     "a proxy that answers in place of the platform or rewrites headers; level 6 shows the header that came"},
    {Cause::upgrade_no_answer, Phase::upgrade_sent, "upgrade-no-answer", "no answer to the upgrade",
     "whether the platform is overloaded, and a proxy that does not know upgrades"},
    {Cause::registration_not_sent, Phase::upgraded, "registration-not-sent", "the registration was not sent",
     "the errors in front of it; the library waits for nothing then, so the module has to start again"},
    {Cause::registration_refused, Phase::registering, "registration-refused", "registration refused",
     "whether the platform knows this device: serial number, model name, and a token that is still valid"},
    {Cause::registration_bad_answer, Phase::registering, "registration-bad-answer", "registration answered wrongly",
     "the release of the platform; level 7 shows the answer"},
    {Cause::registration_no_answer, Phase::registering, "registration-no-answer", "no answer to the registration",
     "whether the platform is overloaded, or still holds an earlier tunnel of this device"},
    {Cause::closed_in_set_up, Phase::connecting, "closed-in-set-up", "connection ended during the set-up",
     "the platform's own log at this time, and a proxy or firewall between"},
    {Cause::closed_by_platform, Phase::up, "closed-by-platform", "closed by the platform",
     "status and reason; 1001 and 1012 are a restart of the platform, 1008 and 1011 its refusal"},
    {Cause::ended_by_platform, Phase::up, "ended-by-platform", "ended by the platform without a close",
     "a restart of the platform, and idle times of proxies: pings keep a tunnel alive"},
    {Cause::connection_broken, Phase::up, "connection-broken", "the connection broke",
     "the uplink of the device, and firewalls that forget idle connections: pings keep them open"},
    {Cause::bad_frame, Phase::up, "bad-frame", "a frame could not be read",
     "what the platform sent: level 7 shows the bytes; the errors in front of it"},
    {Cause::closed_here, Phase::up, "closed-here", "closed by this side",
     "the module's own log: it asked for the close"},
    {Cause::refused_by_module, Phase::up, "refused-by-module", "ended by the module's callback",
     "the module's own log: its callback returned an error for what it was given"},
    {Cause::started_again, Phase::up, "started-again", "started a second time",
     "the module: it must not start a model whose tunnel stands or is being set up"},
    {Cause::process_ended, Phase::down, "process-ended", "the process ended or started anew",
     "why the process went: its supervisor, a crash, memory"},
    {Cause::local_limit, Phase::started, "local-limit", "memory or a limit of the process",
     "memory and descriptors of the process, and how many tunnels it opens"},
    {Cause::unknown, Phase::down, "unknown", "not said in the log", "a log of level 5 or higher"},
};

consteval bool rows_in_order() {
    std::size_t i = 0;
    for (const CauseRow &row : kRows) {
        if (static_cast<std::size_t>(row.cause) != i++) return false;
    }
    return i == kCauses;
}
static_assert(rows_in_order());

}  // namespace

const CauseRow &row_of(Cause cause) { return kRows[static_cast<std::size_t>(cause)]; }

}  // namespace explain
