// The calls that fail, one way each: "recv/EINTR" is recv that fails with EINTR, "malloc" is malloc that gives null.
#ifndef TESTS_TORTURE_CALLS_H
#define TESTS_TORTURE_CALLS_H

#include <span>
#include <string_view>

#include "tests/support/fault.h"

namespace torture {

struct Failure {
    const char *name;
    const char *function;  // that of a WrapPoint
    support::FaultPlan plan;
    bool third_party = false;  // an allocation of OpenSSL or json-c
};

std::span<const Failure> failures();
const Failure *find_failure(std::string_view name);  // null: there is none

}  // namespace torture

#endif
