// The allocations that OpenSSL and json-c make while the library calls them, as functions that a Fault can strike:
// "openssl_alloc" and "json_alloc". Those of the test's own servers are under a Quiet and do not count.
#ifndef TESTS_TORTURE_THIRD_PARTY_H
#define TESTS_TORTURE_THIRD_PARTY_H

namespace torture {

// To be called before OpenSSL allocates anything.
void watch_third_parties();

}  // namespace torture

#endif
