// Memory is malloc's: there is no C++ run-time library to bring an operator new.
#pragma once

#include <cstdlib>
#include <memory>

#pragma GCC visibility push(hidden)
namespace ctm {

struct Free {
    void operator()(void *block) const { free(block); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

}  // namespace ctm
#pragma GCC visibility pop
