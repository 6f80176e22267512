// States and causes by the names that logs and metrics show; "unknown" for what is none.
#pragma once

#pragma GCC visibility push(hidden)
namespace ctm {

const char *state_name(int state);
const char *cause_name(int cause);

}  // namespace ctm
#pragma GCC visibility pop
