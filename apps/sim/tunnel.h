// One tunnel on the platform's side: TLS, the upgrade, the registration, and frames both ways until it ends.
//
// run() reads and reacts, the send functions queue bytes, and every change of state notifies the simulator's condition,
// on which the runner waits.
#pragma once

#include <deque>
#include <memory>
#include <optional>

#include "behaviour.h"
#include "event_stream.h"
#include "frame.h"
#include "outbox.h"
#include "status.h"
#include "stream.h"
#include "tunnel_data.h"
#include "upgrade.h"

namespace sim {

// The parts of the simulator that a tunnel uses; all of them outlive every tunnel.
struct Context {
    asio::io_context &io;
    const EventStream &events;
    Condition &changed;
    const TunnelData &tunnel_data;
    const Behaviour &behaviour;
};

class Tunnel : public std::enable_shared_from_this<Tunnel> {
  public:
    enum class State {
        connecting,   // TLS handshake and upgrade
        registering,  // upgrade answered, OPT1 expected or refused
        open,         // registration accepted
        closing,      // close frame sent or received
        ended,
    };

    // One message of the module, its fragments joined.
    struct Message {
        Opcode opcode;
        std::string body;
    };

    Tunnel(const Context &context, Stream stream, int id);

    // run serves the tunnel until it ends; it throws nothing.
    awaitable<void> run();

    // The send functions queue frames of an open tunnel; on an ended one they do nothing.
    void send_message(Opcode opcode, const std::string &body);
    void send_fragments(const std::string &body, std::size_t fragment_size);
    void send_burst(const std::vector<std::string> &bodies);  // all frames in one write
    void send_ping(const std::string &body);
    void send_close(const CloseBody &body);
    void send_raw(const std::string &bytes);

    // drop resets the TCP connection.
    void drop();

    // close_now ends the connection without a close frame, for the end of the program.
    void close_now();

    [[nodiscard]] int id() const { return id_; }
    [[nodiscard]] State state() const { return state_; }
    [[nodiscard]] const std::string &model() const { return model_; }  // empty before OPT1
    [[nodiscard]] const std::string &ending() const { return ending_; }
    [[nodiscard]] const std::optional<CloseBody> &close_received() const { return close_received_; }
    [[nodiscard]] bool written() const { return outbox_.empty(); }
    [[nodiscard]] TunnelStatus status() const;

    std::deque<Message> inbox;      // messages that the runner has not read yet
    std::deque<std::string> pongs;  // bodies of pongs that the runner has not read yet

  private:
    awaitable<void> open();
    awaitable<std::string> read_request();
    awaitable<void> read_more();
    awaitable<void> read_frames();
    bool report_check(std::string_view what, const std::vector<std::string> &problems) const;
    void answer_by_closing(std::string_view what);
    void await_close(std::string_view cause);
    void answer_upgrade(const std::string &text);
    void send_upgrade_answer(const UpgradeRequest &request, int status);
    bool drain(Key key);
    void wait_for_key();
    void on_frame(Frame frame);
    void on_registration(const Frame &frame);
    void answer_registration(const Behaviour &behaviour);
    void on_data(Frame frame);
    void on_close(const Frame &frame);
    void protocol_error(const std::string &why);
    void post(const Frame &frame);
    std::string encode(const Frame &frame) const;
    void finish_within(Clock::duration time);
    void become(State state, std::string_view cause);
    void emit(Kind kind, std::initializer_list<Field> fields = {}, std::string_view cause = {}) const;
    void emit_frame(Kind kind, const Frame &frame) const;
    void emit_close(Kind kind, const CloseBody &body) const;

    Context context_;
    Stream stream_;
    Outbox outbox_;
    asio::steady_timer deadline_;   // for the set-up, later for the end
    asio::steady_timer key_timer_;  // runs while a frame is exactly its key's four bytes short
    int id_;
    State state_ = State::connecting;
    Clock::duration since_;  // when it came into that state
    std::string model_;
    std::string in_;  // bytes read and not yet decoded
    std::optional<Message> assembly_;
    int fragments_ = 0;
    std::optional<CloseBody> close_sent_;
    std::optional<CloseBody> close_received_;
    std::string ending_;  // why it ended; the first reason stays
};

}  // namespace sim
