// The tunnel of one model: what happens on it, in the timeline and in lines, and the answers of a process without a
// handler.
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

    // begin registers the model with the daemon, which can wait for it, and has the tunnel started.
    ctm_result begin();

    // finish closes an open tunnel; no other is started.
    void finish();

    // ask does what a request wants.
    ctm_result ask(const Request &request);

    [[nodiscard]] const std::string &model() const { return model_; }
    [[nodiscard]] const char *state_name() const;
    [[nodiscard]] std::string state_line() const;
    [[nodiscard]] bool ended() const { return state_ == CTM_CLOSED; }
    [[nodiscard]] long answers() const { return answers_; }        // messages sent, over all tunnels of the model
    [[nodiscard]] long tunnels_ended() const { return tunnels_; }  // that had been open

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
    bool close_asked_ = false;  // by this program, for the tunnel that stands
    bool finishing_ = false;
    Target attempted_;  // by the last attempt
    long requests_ = 0;
    long answers_ = 0;
    long tunnels_ = 0;
};

// cause_text tells a cause and all that belongs to it in one line.
std::string cause_text(const ctm_cause_info &cause);

}  // namespace module_program
