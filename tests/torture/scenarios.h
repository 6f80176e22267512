// The scenarios: what a process does with the library, from its first call to the last one that is tortured.
#ifndef TESTS_TORTURE_SCENARIOS_H
#define TESTS_TORTURE_SCENARIOS_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/torture/stage.h"

namespace torture {

struct Scenario {
    std::string name;
    std::string clean;                               // how it ends when nothing fails
    std::function<std::string(Stage &)> play;        // tortured; returns how it ended
    std::function<void(Stage &)> prepare = nullptr;  // before that, and
    std::function<void(Stage &)> afterwards;         // after it: a fresh tunnel, in the same process
    bool alike = false;                              // it repeats itself: a part of its calls stands for all
};

const std::vector<Scenario> &scenarios();
const Scenario *find_scenario(std::string_view name);  // null: there is none

}  // namespace torture

#endif
