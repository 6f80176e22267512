// One module process on the daemon's socket.
//
// After each registration the library takes the next bytes for the reply, whatever they are. At any other time it takes
// everything that one read yields for one notification. So a reply is sent at once, and a notification only after the
// link was quiet for a while: one read never yields both, and no notification arrives where a reply is expected.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "condition.h"
#include "daemon_wire.h"
#include "event_stream.h"
#include "fault_set.h"
#include "outbox.h"
#include "status.h"
#include "tunnel_data.h"

namespace sim {

// What every link knows of its daemon; it outlives every link.
struct DaemonPolicy {
    const TunnelData &tunnel_data;
    bool announce = true;             // send tunnel data to every model that registers
    std::vector<std::string> models;  // the models that get tunnel data; empty: all
    const FaultSet &faults;
    std::function<void(std::chrono::milliseconds)> go_away = {};  // ends every link and comes back after the time
};

// A module takes all that one read gives for one message. So a notification waits for a moment of quiet, and until the
// bytes before it have been read, but not for ever. notice_due is when the next one may go, as it looks now.
constexpr auto kQuiet = std::chrono::milliseconds(100);
Clock::time_point notice_due(asio::local::stream_protocol::socket &socket, Clock::time_point last_traffic);

// reason_of says in words why a link ended.
std::string reason_of(const error_code &error);

class DaemonLink : public std::enable_shared_from_this<DaemonLink> {
  public:
    using Socket = asio::local::stream_protocol::socket;

    DaemonLink(asio::io_context &io, const EventStream &events, Condition &changed, const DaemonPolicy &policy,
               Socket socket, int id);

    // run serves the link until it ends; it throws nothing.
    awaitable<void> run();

    // notify queues a notification.
    void notify(const std::string &model, Notice notice);

    void close_now();

    [[nodiscard]] bool has(const std::string &model) const;
    [[nodiscard]] bool idle() const { return pending_.empty() && outbox_.empty(); }
    [[nodiscard]] LinkStatus status() const { return {.id = id_, .models = models_}; }
    [[nodiscard]] bool ended() const { return ended_; }

  private:
    struct Pending {
        std::string model;
        Notice notice;
        int repetition = 0;  // how often a fault has sent it before
    };

    awaitable<void> read_registrations();
    awaitable<void> send_notifications();
    void on_registration(const WireRegistration &registration);
    ConnectionFaults &faults_of(const std::string &model);
    awaitable<void> send(const Pending &pending);
    void repeat(const Pending &pending);
    [[nodiscard]] TunnelData data_for(const Pending &pending);
    [[nodiscard]] bool is_served(const std::string &model) const;
    [[nodiscard]] std::string encode(const Pending &pending);
    void post(std::string record, std::string_view type, const std::string &model);
    void emit(Kind kind, const std::string &model = {}, std::initializer_list<Field> fields = {},
              std::string_view cause = {}) const;

    asio::io_context &io_;
    const EventStream &events_;
    Condition &changed_;
    const DaemonPolicy &policy_;
    Socket socket_;
    Outbox outbox_;
    Condition pending_changed_;
    std::map<std::string, ConnectionFaults> faults_;  // by model: each meets its own
    std::deque<Pending> pending_;
    std::vector<std::string> models_;  // in the order of their first registration
    Clock::time_point last_traffic_ = Clock::now();
    int id_;
    bool hangs_up_ = false;  // once everything is written
    bool ended_ = false;
};

}  // namespace sim
