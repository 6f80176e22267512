// One open page of the simulator: what has changed goes to the browser, and what the user asks for is done.
//
// An update is one JSON object. It has "now", and of the rest what has changed: "tunnels" and "gone", "models",
// "daemon", "faults", "counts"; "watched", the set-up and the frames of the one tunnel that the page looks at;
// "events", lines of the timeline; "replies" to commands. The first one has "hello", with what never changes.
//
// A command is one JSON object: "id", a number that its reply repeats, "do", the command's name, and its arguments.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "json_writer.h"
#include "web_server.h"
#include "web_state.h"

struct json_object;

namespace sim {

struct Simulator;

class SimulatorPage : public WebPage {
  public:
    SimulatorPage(Simulator &simulator, WebState &state);

    void receive(std::string_view message) override;
    std::string next() override;

  private:
    using Action = void (SimulatorPage::*)(json_object *arguments);
    struct Row;
    static const Row kRows[];

    struct Reply {
        std::int64_t command;
        std::string error;  // empty: done
    };

    void watch(json_object *arguments);
    void timeline(json_object *arguments);
    void send(json_object *arguments);
    void send_hex(json_object *arguments);
    void ping(json_object *arguments);
    void close(json_object *arguments);
    void drop(json_object *arguments);
    void notify(json_object *arguments);
    void daemon(json_object *arguments);
    void tunnel_data(json_object *arguments);
    void fault(json_object *arguments);
    void fault_off(json_object *arguments);

    void write_hello(JsonWriter &out);
    void write_tunnels(JsonWriter &out);
    void write_section(JsonWriter &out, const char *name, JsonWriter section);
    void write_watched(JsonWriter &out);
    void write_lines(JsonWriter &out);
    void write_replies(JsonWriter &out);

    Simulator &simulator_;
    WebState &state_;
    bool greeted_ = false;
    std::uint64_t seen_ = 0;                       // the number of the last change shown
    std::set<int> known_;                          // tunnels that the browser has
    std::map<std::string, std::string> sections_;  // as the browser has them
    int watched_ = 0;                              // 0: none
    std::uint64_t frame_seen_ = 0;
    std::uint64_t steps_seen_ = 0;
    bool watch_fresh_ = false;  // the browser has nothing yet of the tunnel it looks at
    bool follows_ = false;      // it shows the timeline
    bool lines_fresh_ = false;  // it was just opened, and shows all that there is
    std::uint64_t line_seen_ = 0;
    std::vector<Reply> replies_;
};

}  // namespace sim
