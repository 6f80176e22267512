// The models that this process has registered with the daemon. A registration is never taken back, and its callbacks
// take no argument: each model has functions of its own, which lead to its row here. The row outlives the tunnel, and
// keeps what the daemon has said for the next tunnel of that model.
#pragma once

#include <cloudtunnel.h>
#include <cloudtunnel_module.h>

#include <span>

#pragma GCC visibility push(hidden)
namespace ctm {

struct ModelRow {
    char model[CTM_NAME_MAX + 1];  // empty: not used yet
    ctm_tunnel *tunnel;            // null: none at present
    bool data;                     // the daemon has sent tunnel data, and has not closed the model since
};

// registry_find returns the row of a model, null where it has none.
ModelRow *registry_find(const char *model);

// registry_take returns the row of a model, registered with the daemon; null, with *result set, when there is no room.
// Blocks until the daemon has answered.
ModelRow *registry_take(const char *model, const char *sub_name, ctm_result *result);

// registry_rows returns all rows. They stay where they are: a walk by index survives what a callback does.
extern ModelRow g_registry_rows[CTM_TUNNEL_MAX];
inline std::span<ModelRow, CTM_TUNNEL_MAX> registry_rows() { return g_registry_rows; }

// registry_report takes what the daemon says of the model of a row: both in one number. Always 0.
enum class Report : unsigned { data, closed, notice };
constexpr unsigned kReports = 3;
constexpr unsigned report_code(unsigned index, Report report) {
    return index * kReports + static_cast<unsigned>(report);
}
int registry_report(unsigned code);

// registry_clear forgets all: libcloudtunnel's next init does too.
void registry_clear();

// registry_node returns what libcloudtunnel knows of a model, null where it is not registered.
const CLOUDTUNNEL_MODULE_NODE *registry_node(const char *model);

}  // namespace ctm
#pragma GCC visibility pop
