// A platform without TLS, with faults, and a module's connection to it: every byte is the platform's own.
#pragma once

#include <gtest/gtest.h>

#include "tests/apps/sim/raw_module.h"
#include "tests/apps/sim/sim_process.h"

namespace simtest {

// The platform's whole answer to upgrade_request().
inline const std::string kUpgradeAnswer =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";

inline std::vector<std::string> with_faults(const std::vector<std::string> &faults,
                                            std::vector<std::string> options = {}) {
    for (const std::string &fault : faults) {
        options.emplace_back("--fault");
        options.push_back(fault);
    }
    return options;
}

// A platform without TLS and a connection to it.
struct Plain {
    explicit Plain(const std::vector<std::string> &faults, std::vector<std::string> options = {})
        : sim(with_faults(faults, plain(std::move(options)))) {
        EXPECT_TRUE(wire.connect_tcp(sim.port()));
    }
    static std::vector<std::string> plain(std::vector<std::string> options) {
        options.emplace_back("--plain");
        return options;
    }

    // upgrade and up are the set-up as it goes without faults in its way.
    bool upgrade() { return wire.write(upgrade_request()) && wire.read_all(kUpgradeAnswer.size()) == kUpgradeAnswer; }
    bool up() {
        if (!upgrade() || !wire.write(library_frame(1, opt1()))) return false;
        return read_frame(wire).has_value() && sim.wait_for("the tunnel is up");
    }

    SimProcess sim;
    Wire wire;
};

}  // namespace simtest
