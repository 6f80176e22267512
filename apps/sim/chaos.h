// A schedule of faults that a seed draws: steps that switch one fault of the table after the other on and off again.
#pragma once

#include <string>
#include <vector>

namespace sim {

// chaos_steps draws the steps; the same seed draws the same ones.
std::vector<std::string> chaos_steps(long seed);

}  // namespace sim
