// States and causes by the names in logs and metrics; "unknown" for any other number.
#pragma once

#pragma GCC visibility push(hidden)
namespace ctm {

const char *state_name(int state);
const char *cause_name(int cause);

}  // namespace ctm
#pragma GCC visibility pop
