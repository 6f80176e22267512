// Replay of a recorded session: it plays what platform and daemon did, and compares what the module sends.
//
// The entries of the recording are carried out one after the other. One of the simulator's own is done when its time
// has come; one of the module's is waited for. So whatever the module needed in the recording is there before it is
// expected to go on, and nothing is sent before the module has sent what came before it.
//
// Several module processes connect in any order. A link is that of the recording with the same first record. A tunnel
// is one of the model to which tunnel data were sent just before, and otherwise the next one of the recording.
//
// What differs from run to run is neither sent nor compared as it was recorded: the platform's address in the tunnel
// data and in the request's Host, the key of the upgrade and its accept value, and the masks.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "recording.h"
#include "simulator.h"

namespace sim {

class Replay {
  public:
    static constexpr std::string_view kEnd = "the end of the recording";

    // The simulator must not have been started: the replay serves its connections.
    Replay(Simulator &simulator, const Recording &recording, const Options &options);

    // run plays the recording and returns the status to exit with.
    awaitable<int> run();

    [[nodiscard]] bool running() const { return running_; }
    void skip_rest() const {}

  private:
    using Of = ModuleBytes::Of;
    struct Peer;
    struct Differs;

    void take_tunnel(tcp::socket socket, asio::ssl::context *tls);
    void take_link(DaemonLink::Socket socket);
    void bind_link(const Entry &entry, const std::shared_ptr<Peer> &peer);
    [[nodiscard]] std::shared_ptr<Peer> link_like(const Entry &entry) const;
    awaitable<void> serve(std::shared_ptr<Peer> peer);
    awaitable<void> write_queued(std::shared_ptr<Peer> peer);
    void end(const std::shared_ptr<Peer> &peer) const;

    awaitable<void> play(const Entry &entry);
    awaitable<void> pass_time(const Entry &entry);
    awaitable<void> wait_for_link(const Entry &entry);
    awaitable<void> wait_for_tunnel(const Entry &entry);
    awaitable<void> wait_for_unit(const Entry &entry);
    awaitable<void> wait_for_end(const Entry &entry);
    awaitable<void> send(const Entry &entry);
    awaitable<void> reset(const Entry &entry);
    awaitable<void> end_all();
    [[nodiscard]] Clock::time_point latest(const Entry &entry) const;

    [[nodiscard]] ModuleUnit wanted(const Entry &entry) const;
    void learn_key(Peer &peer, const ModuleUnit &recorded, const ModuleUnit &came) const;
    [[nodiscard]] std::string with_address(std::string bytes);
    awaitable<void> wait_for_notified();
    static void nothing_left(const Entry &entry, const Peer &peer);
    void nothing_left() const;
    [[nodiscard]] const std::shared_ptr<Peer> &peer(const Entry &entry) const;
    void emit(const Peer &peer, Kind kind, std::initializer_list<Field> fields = {}, std::string_view cause = {}) const;
    void show(const Entry &entry, std::string_view what) const;

    Simulator &simulator_;
    const Recording &recording_;
    bool recorded_pace_;
    std::chrono::seconds patience_;
    std::map<int, ModuleUnit> first_records_;  // of the links
    std::size_t links_to_come_ = 0;
    std::vector<std::shared_ptr<Peer>> new_links_;  // not yet identified
    std::deque<int> tunnels_to_come_;
    std::string notified_model_;  // its tunnel data were sent, and it has not connected yet
    std::map<std::pair<Of, int>, std::shared_ptr<Peer>> peers_;
    std::string recorded_host_;  // that the tunnel data had
    Clock::time_point start_{};  // when the time 0 of the recording was; moved where the module takes longer
    Clock::time_point done_{};   // when the last entry was
    Clock::duration last_{};     // its time in the recording
    std::size_t compared_ = 0;
    bool running_ = true;
};

}  // namespace sim
