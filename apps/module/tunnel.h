// The tunnel of one model. Shows what happens on it in the timeline and in lines, and answers its messages if the
// process has no handler.
#pragma once

#include <cloudtunnel_module.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "daemon_link.h"
#include "library_log.h"
#include "lines.h"
#include "options.h"
#include "timeline.h"

namespace module_program {

// What the tunnels of a process share.
struct Context {
    const Options &options;
    Timeline &timeline;
    const LibraryLog &log;
    DaemonLink &link;
    Lines &lines;
};

class Tunnel {
  public:
    Tunnel(const Context &context, std::string model);

    // begin registers the model with the daemon, which blocks until the daemon answers, and has the tunnel started.
    ctm_result begin();

    // finish closes the tunnel and has no other one started: `ended` follows.
    void finish();

    // ask does what a request asks for, and returns the library's result.
    ctm_result ask(const Request &request);

    [[nodiscard]] const std::string &model() const { return model_; }
    [[nodiscard]] const char *state_name() const;
    [[nodiscard]] std::string state_line() const;
    [[nodiscard]] bool ended() const { return state_ == CTM_CLOSED; }
    [[nodiscard]] long answers() const { return answers_; }              // messages sent, since the start
    [[nodiscard]] long tunnels_ended() const { return tunnels_ended_; }  // ends of an open tunnel, since the start

  private:
    struct Target {  // the destination in the daemon's tunnel data
        std::string host;
        std::string path;
        uint16_t port = 0;
        bool operator==(const Target &) const = default;
    };

    // The library's callbacks.
    void on_state(ctm_state state, const ctm_cause_info &cause);
    void on_step(ctm_step step);
    void on_message(const ctm_message &message);
    void on_pinged(std::string_view body);
    void on_pong(uint32_t round_trip_us);
    void on_closed(uint16_t status, std::string_view reason);

    void log(const char *format, ...) const __attribute__((format(printf, 2, 3)));
    [[nodiscard]] ctm_cause_info cause() const;  // of the present state
    [[nodiscard]] Target target() const;
    void show_data();
    void show_connecting();
    void show_closing(const ctm_cause_info &cause);
    void answer(const ctm_message &message);
    ctm_result send(ctm_type type, std::string_view data);

    const Context &context_;
    std::string model_;
    ctm_tunnel *tunnel_ = nullptr;
    ctm_state state_ = CTM_CLOSED;
    bool begun_ = false;
    bool close_asked_ = false;  // this program has closed the present tunnel
    bool finishing_ = false;
    Target attempted_;  // of the last attempt
    long requests_ = 0;
    long answers_ = 0;
    long tunnels_ended_ = 0;
};

// cause_text returns a cause and all that belongs to it in one line.
std::string cause_text(const ctm_cause_info &cause);

}  // namespace module_program
