// The daemon: the unix socket that module processes connect to, and the links to them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "daemon_link.h"

namespace sim {

class Daemon {
  public:
    Daemon(asio::io_context &io, const EventStream &events, Condition &changed, DaemonPolicy policy, std::string path);

    // start listens. A socket file on which no process listens is removed first. Throws std::runtime_error when the
    // daemon cannot listen.
    void start();

    // take_with gives every new connection to `taker`, which serves it in the daemon's place.
    void take_with(std::function<void(DaemonLink::Socket)> taker) { taker_ = std::move(taker); }

    // stop ends every link and removes the socket file, if it is still the daemon's own.
    void stop();

    [[nodiscard]] const std::string &path() const { return path_; }

    [[nodiscard]] bool running() const { return acceptor_.is_open(); }

    // has is true when a connected module process has registered that model, or any for an empty text.
    [[nodiscard]] bool has(const std::string &model) const;

    // notify queues a notification to every module process that registered the model; false when there is none.
    bool notify(const std::string &model, Notice notice);

    // idle is true once all that was queued is written.
    [[nodiscard]] bool idle() const;

    // empty is true when no link is left.
    [[nodiscard]] bool empty() const { return links_.empty(); }

    [[nodiscard]] DaemonStatus status() const;

  private:
    awaitable<void> accept(int start_number);
    void remove_stale_file() const;
    void stay_away(std::chrono::milliseconds time);
    void emit(Kind kind, std::initializer_list<Field> fields = {}, std::string_view cause = {}) const;

    asio::io_context &io_;
    const EventStream &events_;
    Condition &changed_;
    DaemonPolicy policy_;
    std::string path_;
    asio::local::stream_protocol::acceptor acceptor_;
    asio::steady_timer absence_;
    struct stat own_file_ = {};
    std::function<void(DaemonLink::Socket)> taker_;
    std::vector<std::shared_ptr<DaemonLink>> links_;
    int last_id_ = 0;
    int starts_ = 0;
};

}  // namespace sim
