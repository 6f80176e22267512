// How a platform misbehaves while a tunnel is set up: everything it may do in place of the right answer, by name. One
// table for all who act a platform in this process: the refusals of the whole-tunnel tests, the torture and the soak.
// Each is a fault of the simulator, which makes its bytes.
//
//   support::misbehave(*server, support::misbehaviour("no_accept"), key);    // key: that of the upgrade request
#ifndef TESTS_SUPPORT_MISBEHAVIOUR_H
#define TESTS_SUPPORT_MISBEHAVIOUR_H

#include <string>
#include <string_view>
#include <vector>

#include "apps/sim/fault.h"
#include "tests/support/server.h"

namespace support {

struct Misbehaviour {
    std::string name;
    sim::Fault fault;
    sim::Stage stage;  // upgrade or registration: the answer that it is in place of

    bool silent() const { return fault.kind() == sim::FaultKind::silence; }
    // Bytes come, and the connection stays.
    bool answers() const;
};

// In place of the answer to the upgrade request, and of the answer to the tunnel's registration.
const std::vector<Misbehaviour> &wrong_upgrades();
const std::vector<Misbehaviour> &wrong_registrations();
// The one of that name, of either kind.
const Misbehaviour &misbehaviour(std::string_view name);

void misbehave(Server &server, const Misbehaviour &misbehaviour, const std::string &key);

}  // namespace support

#endif
