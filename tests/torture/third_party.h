// The allocations that OpenSSL and json-c make while the library calls them, as functions that a Fault can strike:
// "openssl_alloc" and "json_alloc". Those of the test's own servers are under a Quiet and do not count.
#ifndef TESTS_TORTURE_THIRD_PARTY_H
#define TESTS_TORTURE_THIRD_PARTY_H

#include "tests/support/server.h"

namespace torture {

// To be called before OpenSSL allocates anything.
void watch_third_parties();

// Whether OpenSSL, without the library, still makes a connection to a server of its own. Where an allocation of its has
// failed it may not, for the rest of the process: it keeps in mind that an algorithm is not to be had.
bool openssl_shakes_hands(support::Wire wire);

inline constexpr char kOpensslBroken[] = "OpenSSL shakes no hands any more, not even without the library.";

}  // namespace torture

#endif
