// The life of each tunnel, from the library's messages in their order.
//
// A message belongs to a tunnel by the model it names, or by its socket: a descriptor belongs to the model that got it
// last, until its connection is gone. Some messages name neither; they belong to the tunnel that the same process dealt
// with last, since the library does one thing at a time. Where the log has no messages of level 5, the hand-off is
// inferred: a registration that was sent and not refused came up.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "causes.h"
#include "clock.h"
#include "matcher.h"
#include "report.h"
#include "secrets.h"

namespace explain {

class Story {
  public:
    // `model` limits what is reported to one tunnel; empty: all.
    Story(Report &report, Secrets &secrets, std::string model);

    // interesting is true for a format that tells something about a tunnel.
    [[nodiscard]] bool interesting(std::size_t format) const { return handlers_[format] != nullptr; }

    // saw_level notes that the log has messages of this level.
    void saw_level(int level) { levels_seen_ |= 1U << level; }

    // take follows a message. `prefix` is what stands in front of it.
    void take(const Match &match, std::string_view prefix, const Moment &at);

    // finish ends the story and reports the summaries.
    void finish(const Moment &at);

    [[nodiscard]] std::uint64_t tunnels_left_out() const { return left_out_; }

  private:
    struct Rules;  // the messages, and what each means
    using Handler = void (*)(Story &, const Arguments &);

    struct Repeats {
        Event event;
        std::uint64_t times = 0;
        Moment last;
    };
    struct Tunnel {
        Summary summary;
        Phase phase = Phase::down;
        bool seen = false;        // a message of it was followed already
        bool tls = false;         // in this attempt
        bool restarting = false;  // a start came while it was not down
        bool data_reset = false;  // tunnel data set the open tunnel back to HTTP
        bool hung_up = false;     // the kernel reported an error or a hang-up
        bool bad_frame = false;
        bool follow_up = false;      // the dispatch will log the failure once more
        bool daemon_closed = false;  // the daemon's notice came
        long process = 0;
        std::optional<Moment> started;    // this attempt; none: before the log
        std::optional<Moment> restarted;  // the start that came while it was not down
        std::optional<Moment> up_since;
        std::optional<Moment> down_since;
        Moment registered;
        std::string address;
        std::string status;  // of the answer to the upgrade
        std::string location;
        std::string accept;
        std::string resolve_error;
        Repeats repeats;
    };
    struct ConnectFailure {
        long error;
        std::string text;
    };
    struct Process {
        Tunnel *current = nullptr;
        bool follow_up = false;  // "Connect proc failed" will follow a failure that is known
        std::optional<ConnectFailure> connect_failure;
        std::string local_error;
        std::string set_host;  // of the urllist_set under way
        Tunnel *set_tunnel = nullptr;
        Repeats repeats;
    };

    Process &process() { return processes_[process_]; }
    Tunnel *find(std::string_view model);
    Tunnel *by_socket(long sock);
    Tunnel *bound(std::string_view model, long sock);
    void bind(Tunnel &tunnel, long sock);
    void unbind(long sock);

    void start(std::string_view model);
    void reached(Tunnel *tunnel, Phase phase);
    void open(Tunnel &tunnel, const Moment &at, bool inferred);
    void infer_hand_off(Tunnel &tunnel);
    void fail(Tunnel *tunnel, Cause cause, std::string sentence, bool dispatched = false);
    void broken(Tunnel *tunnel, Cause cause, std::string_view sentence);
    void process_ended(std::string_view how);
    void connect_proc_failed(long result, long error, std::string_view text);
    void end_by_connect_failure(Tunnel &tunnel, const ConnectFailure &failure);
    void socket_deleted(long sock);
    void dispatch_failed(std::string_view model, long sock, long events, long result);
    void set_model_url(std::string_view model, std::string_view host, std::string_view path, long type, long port);
    void notified(std::string_view hex);
    void note(Tunnel *tunnel, std::string what);
    void report(Repeats &repeats, bool collapse, Event event, const Moment &at);
    void flush(Repeats &repeats);
    static std::string came_up(const Tunnel &tunnel);
    static std::string_view stopped_at(const Tunnel &tunnel);

    Report &report_;
    Secrets &secrets_;
    std::string model_;
    std::vector<Handler> handlers_;
    std::map<std::string, Tunnel, std::less<>> tunnels_;
    std::map<long, Process> processes_;
    std::map<std::pair<long, long>, Tunnel *> sockets_;  // by process and descriptor
    long process_ = 0;
    unsigned levels_seen_ = 0;
    std::uint64_t left_out_ = 0;
    Moment now_;
};

}  // namespace explain
