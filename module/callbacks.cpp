// In a file of its own for size: here the compiler cannot see that registry_report returns 0, and each of the hundred
// functions is a constant and a jump.
#include "callbacks.h"

#include <utility>

#include "registry.h"

namespace ctm {
namespace {

// One argument, for row and report together, saves an instruction in each function.
template <unsigned Index, Report What>
int report() {
    return registry_report(report_code(Index, What));
}

struct Callbacks {
    int (*data)();
    int (*closed)();
    int (*notice)();
};
Callbacks g_callbacks[CTM_TUNNEL_MAX] = {};

template <unsigned... Indexes>
void fill(std::integer_sequence<unsigned, Indexes...>) {
    ((g_callbacks[Indexes] = {report<Indexes, Report::data>, report<Indexes, Report::closed>,
                              report<Indexes, Report::notice>}),
     ...);
}

}  // namespace

void callbacks_set(CLOUDTUNNEL_MODULE_REG &registration, unsigned index) {
    // Filled at run time: each pointer of a constant table would need a relocation, three times its size.
    if (!g_callbacks[0].data) fill(std::make_integer_sequence<unsigned, CTM_TUNNEL_MAX>());
    registration.tunnel_open_cb = g_callbacks[index].data;
    registration.tunnel_close_cb = g_callbacks[index].closed;
    registration.tunnel_third_cb = g_callbacks[index].notice;
}

}  // namespace ctm
