#include "tests/torture/scenarios.h"

#include <cstdio>
#include <utility>

#include <unistd.h>

#include "tests/support/quiet.h"
#include "tests/torture/scenario_groups.h"

namespace torture {
namespace {

std::string log_file_and_dumps(Stage &) {
    const std::string path = "/tmp/cloudtunnel_torture." + std::to_string(getpid());
    const int opened = CLOUDMGR_debug_open_file(path.c_str());
    const uint8_t bytes[100] = {1, 2, 3};
    CLOUDMGR_debug_PrintPkt(bytes, sizeof bytes);
    printHex(bytes, sizeof bytes);
    CLOUDMGR_debug_SetStdout();
    EXPECT_EQ(g_CloudTunnelLogFile == nullptr, opened != 0);
    CLOUDMGR_debug_open_file(path.c_str());
    CLOUDMGR_debug_Removefile();
    CLOUDMGR_debug_CloseFile();
    char text[512] = "";
    cloudtunnel_timer_run_time(text);
    cloudtunnel_timer_boot_time(text);
    cloudtunnel_timer_boot_cloudap_time(text);
    cloudtunnel_timer_settimer();
    cloudtunnel_timer_stoptimer();
    EXPECT_EQ(g_CloudTunnelLogFile, nullptr);
    {
        const support::Quiet quiet;
        std::remove(path.c_str());
    }
    // A path that the library keeps until the next file is opened.
    CLOUDMGR_debug_open_file("/tmp");
    return opened == 0 ? "written" : "no file";
}

Scenarios make_scenarios() {
    Scenarios all;
    add_process_scenarios(all);
    add_module_scenarios(all);
    add_tunnel_scenarios(all);
    add_refusal_scenarios(all);
    add(all, "log_file_and_dumps", "written", Wire::plain, log_file_and_dumps);
    return all;
}

}  // namespace

void add(Scenarios &all, const std::string &name, const char *clean, Wire wire,
         std::function<std::string(Stage &)> play) {
    const auto afterwards = [wire](Stage &stage) {
        stage.expect_rest();
        stage.expect_a_fresh_tunnel(wire);
    };
    all.push_back({.name = name, .clean = clean, .play = std::move(play), .afterwards = afterwards});
}

const std::vector<Scenario> &scenarios() {
    static const Scenarios all = make_scenarios();
    return all;
}

const Scenario *find_scenario(std::string_view name) {
    for (const Scenario &scenario : scenarios()) {
        if (scenario.name == name) return &scenario;
    }
    return nullptr;
}

}  // namespace torture
