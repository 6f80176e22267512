// The callbacks of a model take no argument, so each row of the registry has its own three functions.
#pragma once

#include <cloudtunnel.h>

#pragma GCC visibility push(hidden)
namespace ctm {

// callbacks_set fills in the three callbacks of row `index`.
void callbacks_set(CLOUDTUNNEL_MODULE_REG &registration, unsigned index);

}  // namespace ctm
#pragma GCC visibility pop
