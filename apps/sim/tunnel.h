// One tunnel on the platform's side: TLS, the upgrade, the registration, and frames both ways until it ends.
//
// run() reads and reacts, the send functions queue bytes, and every change of state notifies the simulator's condition,
// on which the runner waits.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <set>

#include "behaviour.h"
#include "event_stream.h"
#include "fault_set.h"
#include "frame.h"
#include "outbox.h"
#include "registration_fault.h"
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
    const FaultSet &faults;
};

// reason_of says in words why a tunnel's connection failed or ended.
std::string reason_of(const system_error &error);

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

    // A tunnel without a TLS context is plain. `model` is the one that the connection's port is for, or empty.
    Tunnel(const Context &context, tcp::socket socket, asio::ssl::context *tls, int id, const std::string &model);

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

    // check_faults carries out those that were switched on and are due at once, and lets go what others held back.
    void check_faults();

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
    awaitable<void> write(std::string_view bytes);
    awaitable<std::string> read_request();
    void take(const std::string &bytes);
    awaitable<void> read_frames();
    bool report_check(std::string_view what, const std::vector<std::string> &problems) const;
    void answer_by_closing(std::string_view what);
    void await_close(std::string_view cause);
    void answer_upgrade(const std::string &text);
    bool drain(Key key);
    void wait_for_key();
    void on_frame(Frame frame);
    void on_registration(const Frame &frame);
    void answer_registration(bool refused);
    void send_registration_reply(const RegistrationReply &reply);
    void on_data(Frame frame);
    void on_close(const Frame &frame);
    void protocol_error(const std::string &why);
    void post(const Frame &frame);
    void post_fragments(const Frame &frame, const Fault &fault);
    void send_unasked();
    std::string encode(const Frame &frame);
    [[nodiscard]] Stage frame_stage() const;
    void finish_within(Clock::duration time);
    bool reach(Stage stage);
    void enter(Stage stage);
    void end_by(const FaultSet::Active &fault, std::function<void()> end);
    void become(State state, std::string_view cause);
    void emit(Kind kind, std::initializer_list<Field> fields = {}, std::string_view cause = {}) const;
    void emit_frame(Kind kind, const Frame &frame) const;
    void emit_close(Kind kind, const CloseBody &body) const;

    Context context_;
    ConnectionFaults faults_;
    Stream stream_;
    Outbox outbox_;
    asio::steady_timer deadline_;     // for the set-up, later for the end
    asio::steady_timer fault_timer_;  // until a fault ends the connection
    asio::steady_timer late_timer_;   // until a late answer to the registration
    asio::steady_timer key_timer_;    // runs while a frame is exactly its key's four bytes short
    int id_;
    State state_ = State::connecting;
    Clock::duration since_;                    // when it came into that state
    Stage stage_ = Stage::accept;              // to which the bytes belong now
    Stage reached_ = Stage::accept;            // the last one in which the module has done its part
    std::set<int> sent_unasked_;               // numbers of the faults whose frames were sent
    std::set<std::pair<int, Stage>> rekeyed_;  // numbers of the faults that have taken other keys, and where
    int fault_due_ = 0;                        // number of the fault that the timer runs for
    std::string model_;
    std::string in_;  // bytes read and not yet decoded
    std::optional<Message> assembly_;
    int fragments_ = 0;
    std::optional<CloseBody> close_sent_;
    std::optional<CloseBody> close_received_;
    std::string ending_;  // why it ended; the first reason stays
};

}  // namespace sim
