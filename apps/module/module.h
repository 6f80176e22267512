// A module process: one model, its link to the daemon, its tunnel, and the loop that serves them.
#pragma once

#include "common/service_manager.h"
#include "daemon_link.h"
#include "options.h"
#include "timeline.h"
#include "tunnel.h"

namespace module_program {

class Module {
  public:
    // There is one module at a time in a process. `options` outlives it.
    explicit Module(const Options &options);

    // run serves until the end and returns the exit status. A failure writes one line on standard error.
    int run();

  private:
    static int tunnel_open();
    static int tunnel_close();
    static int tunnel_third();

    bool begin();
    bool run_once();
    void check_end();
    [[nodiscard]] bool goals_met() const;
    [[nodiscard]] bool wait() const;
    bool handle_events();

    const Options &options_;
    Timeline timeline_;
    Tunnel tunnel_;
    DaemonLink link_;
    common::ServiceManager service_;
    Clock::time_point end_;
    int epfd_ = -1;
    bool ending_ = false;
    bool goal_missed_ = false;
};

}  // namespace module_program
