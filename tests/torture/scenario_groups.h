// The scenarios by what they are about, and what their groups share: names, outcomes, and how one is added.
#ifndef TESTS_TORTURE_SCENARIO_GROUPS_H
#define TESTS_TORTURE_SCENARIO_GROUPS_H

#include <functional>
#include <string>
#include <vector>

#include "tests/torture/scenarios.h"

namespace torture {

// How a scenario ends.
inline constexpr char kUp[] = "up";
inline constexpr char kRefused[] = "refused";
inline constexpr char kLost[] = "up, then lost";  // a tunnel that was handed off and did not live to the end

struct NamedWire {
    const char *name;
    Wire wire;
};
inline constexpr NamedWire kPlain = {"plain", Wire::plain};
inline constexpr NamedWire kTls12 = {"tls12", Wire::tls12};
inline constexpr NamedWire kTls13 = {"tls13", Wire::tls13};
inline std::string on(const std::string &what, const NamedWire &wire) { return what + "_" + wire.name; }

using Scenarios = std::vector<Scenario>;

// A scenario of the library's components, with a fresh tunnel of the same wire afterwards.
void add(Scenarios &all, const std::string &name, const char *clean, Wire wire,
         std::function<std::string(Stage &)> play);

void add_process_scenarios(Scenarios &all);  // a module process starts and ends, alone and with its daemon
void add_module_scenarios(Scenarios &all);   // a module on libcloudtunnel-module, its tunnel again and again
void add_tunnel_scenarios(Scenarios &all);   // tunnels that come up
void add_refusal_scenarios(Scenarios &all);  // tunnels that do not

}  // namespace torture

#endif
