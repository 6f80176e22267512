// The functions that libcloudtunnel calls for a model take no argument: each row of the registry has its own.
#pragma once

#include <cloudtunnel.h>

#pragma GCC visibility push(hidden)
namespace ctm {

// callbacks_set sets the three callbacks of row `index`.
void callbacks_set(CLOUDTUNNEL_MODULE_REG &registration, unsigned index);

}  // namespace ctm
#pragma GCC visibility pop
