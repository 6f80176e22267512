// How a platform misbehaves while a tunnel is set up: everything it may do in place of the right answer, by name. One
// table for all who act a platform in this process: the refusals of the whole-tunnel tests, the torture and the soak.
//
//   support::misbehave(*server, support::misbehaviour("no_accept"), key);    // key: that of the upgrade request
#ifndef TESTS_SUPPORT_MISBEHAVIOUR_H
#define TESTS_SUPPORT_MISBEHAVIOUR_H

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/server.h"

namespace support {

struct Misbehaviour {
    enum class Then { stay, close, reset };

    std::string name;
    std::string bytes;  // {accept} stands for the value that proves the key
    Then then = Then::stay;

    bool silent() const { return bytes.empty() && then == Then::stay; }
    bool answers() const { return !bytes.empty() && then == Then::stay; }
};

// In place of the answer to the upgrade request, and of the answer to the tunnel's registration.
const std::vector<Misbehaviour> &wrong_upgrades();
const std::vector<Misbehaviour> &wrong_registrations();
// The one of that name, of either kind.
const Misbehaviour &misbehaviour(std::string_view name);

void misbehave(Server &server, const Misbehaviour &misbehaviour, const std::string &key);

}  // namespace support

#endif
