// States and causes by the names that logs and metrics show; "unknown" for what is none.
#pragma once

namespace [[gnu::visibility("hidden")]] ctm {

const char *state_name(int state);
const char *cause_name(int cause);

}  // namespace gnu::visibility("hidden")]]ctm
