// The models that this process has registered with the daemon, each in a row. A registration is never taken back, so
// the row outlives its tunnel and serves the next tunnel of that model.
#pragma once

#include <cloudtunnel.h>
#include <cloudtunnel_module.h>

#include <span>

#pragma GCC visibility push(hidden)
namespace ctm {

struct ModelRow {
    char model[CTM_NAME_MAX + 1];  // empty: not used yet
    ctm_tunnel *tunnel;            // null: there is none now
    bool data;                     // the daemon has sent tunnel data, and has not closed the model since
};

// registry_find returns the row of a model, null if it has none. The empty name finds an unused row.
ModelRow *registry_find(const char *model);

// registry_take returns the row of a model, and registers the model with the daemon if it has none yet; that blocks
// until the daemon has answered. Null, with *result set, when there is no row left or memory is short.
ModelRow *registry_take(const char *model, const char *sub_name, ctm_result *result);

// registry_rows returns all rows. They never move, so a callback may change tunnels while somebody walks over the rows.
extern ModelRow g_registry_rows[CTM_TUNNEL_MAX];
inline std::span<ModelRow, CTM_TUNNEL_MAX> registry_rows() { return g_registry_rows; }

// registry_report is called when the daemon has sent something for the model of a row. report_code makes one number of
// both. Returns 0, the success of a callback of libcloudtunnel.
enum class Report : unsigned { data, closed, notice };
constexpr unsigned kReports = 3;
constexpr unsigned report_code(unsigned index, Report report) {
    return index * kReports + static_cast<unsigned>(report);
}
int registry_report(unsigned code);

// registry_clear empties all rows, as libcloudtunnel's next init forgets all registrations.
void registry_clear();

// registry_node returns libcloudtunnel's record of a model, null if it is not registered.
const CLOUDTUNNEL_MODULE_NODE *registry_node(const char *model);

}  // namespace ctm
#pragma GCC visibility pop
