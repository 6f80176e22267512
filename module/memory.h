// Memory is malloc's: there is no C++ run-time library to bring an operator new.
#pragma once

#include <cstdlib>
#include <memory>

namespace [[gnu::visibility("hidden")]] ctm {

struct Free {
    void operator()(void *block) const { free(block); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

}  // namespace gnu::visibility("hidden")]]ctm
