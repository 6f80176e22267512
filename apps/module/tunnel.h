// The tunnel of one model, from the daemon's tunnel data to its end and the next start.
//
// The library's callbacks change the state and answer messages. step(), which the program's loop calls, starts a tunnel
// when it is due and ends one that did not answer a close in time.
#pragma once

#include <cloudtunnel.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "assembly.h"
#include "masks.h"
#include "options.h"
#include "retry.h"
#include "timeline.h"

namespace module_program {

class Tunnel {
  public:
    enum class State {
        waiting,  // for tunnel data of the daemon
        pausing,  // until the next start is due
        set_up,   // from the start to the hand-off
        open,     // after the hand-off: the platform's messages arrive here
        closing,  // a close frame was sent or answered, and the connection still exists
        ended,    // finish is done
    };

    // There is one tunnel at a time in a process: the library's callbacks carry no argument that could distinguish two.
    Tunnel(const Options &options, Timeline &timeline);
    ~Tunnel();
    Tunnel(const Tunnel &) = delete;
    Tunnel &operator=(const Tunnel &) = delete;

    // data_came is for the module's open callback: the daemon has sent tunnel data.
    void data_came();

    // model_closed ends the tunnel: the daemon wants none for this model until it sends tunnel data again.
    void model_closed();

    // step does what is due: a start, or the end of a tunnel whose close was not answered.
    void step();

    // finish closes an open tunnel; no other is started.
    void finish();

    // due is the next moment at which step has something to do; Clock::time_point::max() when there is none.
    [[nodiscard]] Clock::time_point due() const { return due_; }
    [[nodiscard]] bool ended() const { return state_ == State::ended; }
    [[nodiscard]] long answers() const { return answers_; }        // requests answered, over all tunnels
    [[nodiscard]] long tunnels_ended() const { return tunnels_; }  // that had been open

  private:
    struct Target {  // the destination in the daemon's tunnel data
        std::string host;
        std::string path;
        uint16_t port = 0;
        bool operator==(const Target &) const = default;
    };

    // The library's callbacks, and the members that they lead to.
    static int connected(int sock);
    static int failed(const char *model);
    static int received(int sock, void *message);
    static int close_due(uint32_t timer, void *sock);
    int on_connected(int sock);
    void on_failed();
    int on_message(const cloudmgr_ws_msg &message);
    void on_close_due(int sock);

    void enter(State state);
    void pause();
    void start();
    void abandon();
    void settle();
    Target current_target() const;
    void keep_data_type() const;

    int take_data(common::Opcode opcode, std::string_view body);
    int send_answer(const std::string &answer);
    int answer_ping(std::string_view body);
    void take_close(const cloudmgr_ws_msg &message, std::string_view body);
    void close(uint16_t status, std::string_view reason);
    bool send(common::Opcode opcode, std::string_view body);

    const Options &options_;
    Timeline &timeline_;
    Retry retry_;
    Assembly assembly_;
    Masks masks_;
    State state_ = State::waiting;
    Clock::time_point due_ = Clock::time_point::max();
    Target target_;         // of the tunnel that was started last
    int sock_ = -1;         // of an open or closing tunnel
    bool restart_ = false;  // the destination has changed
    bool wanted_ = false;   // the daemon wants this tunnel
    bool finishing_ = false;
    bool close_sent_ = false;
    long requests_ = 0;
    long answers_ = 0;
    long tunnels_ = 0;
};

}  // namespace module_program
