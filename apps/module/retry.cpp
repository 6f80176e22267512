#include "retry.h"

#include <algorithm>

namespace module_program {

std::chrono::milliseconds Retry::next() {
    const std::chrono::duration<double, std::milli> jittered = base_ * (0.75 + 0.5 * random_());
    base_ = std::min(base_ * 2, kMost);
    return std::min(std::chrono::duration_cast<std::chrono::milliseconds>(jittered), kMost);
}

}  // namespace module_program
