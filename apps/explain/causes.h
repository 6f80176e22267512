// Why a set-up or a tunnel ended, and what to look at.
#pragma once

#include <cstddef>
#include <string_view>

namespace explain {

// How far a set-up came.
enum class Phase { down, started, connecting, tcp, tls, upgrade_sent, upgraded, registering, up };

enum class Cause {
    no_tunnel_data,
    name_not_resolved,
    connect_refused,
    unreachable,
    connect_failed,
    connect_timeout,
    tls_timeout,
    tls_refused,
    upgrade_not_sent,
    upgrade_refused,
    accept_wrong,
    upgrade_no_answer,
    registration_not_sent,
    registration_refused,
    registration_bad_answer,
    registration_no_answer,
    closed_in_set_up,
    closed_by_platform,
    ended_by_platform,
    connection_broken,
    bad_frame,
    closed_here,
    refused_by_module,
    started_again,
    process_ended,
    local_limit,
    unknown,
    count,
};
inline constexpr std::size_t kCauses = static_cast<std::size_t>(Cause::count);

struct CauseRow {
    Cause cause;
    Phase reached;           // what must have come up before this can happen
    std::string_view id;     // for a program
    std::string_view title;  // for the summary
    std::string_view look_at;
};

const CauseRow &row_of(Cause cause);

}  // namespace explain
