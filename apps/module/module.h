// A module process: its models, its link to the daemon, its handlers, and the loop that serves them.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "common/service_manager.h"
#include "daemon_link.h"
#include "library_log.h"
#include "lines.h"
#include "metrics_file.h"
#include "options.h"
#include "timeline.h"
#include "tunnel.h"

namespace module_program {

class Module : private Tunnels {
  public:
    // There is one Module at a time in a process. `options` must outlive it.
    explicit Module(const Options &options);

    // run serves the tunnels until the end and returns the exit status. A failure writes a line to standard error.
    int run();

  private:
    ctm_result ask(Request &request) override;
    [[nodiscard]] std::vector<std::string> states() const override;

    bool begin();
    void serve();
    void run_once();
    void handle_signals();
    void check_end();
    void write_metrics();
    void end();
    [[nodiscard]] bool goals_met() const;
    [[nodiscard]] bool ended() const;
    [[nodiscard]] long answers() const;
    [[nodiscard]] long tunnels_ended() const;
    [[nodiscard]] std::string status() const;
    [[nodiscard]] int wait_ms() const;
    Tunnel &tunnel_of(Request &request);

    const Options &options_;
    LibraryLog log_;
    Timeline timeline_;
    DaemonLink link_;
    Lines lines_;
    Context context_;
    std::vector<std::unique_ptr<Tunnel>> tunnels_;
    std::optional<MetricsFile> metrics_;
    bool metrics_failed_ = false;
    common::ServiceManager service_;
    Clock::time_point end_;
    bool ending_ = false;
    bool goal_missed_ = false;
};

}  // namespace module_program
