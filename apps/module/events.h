// Events on the tunnels, as lines for other programs: each function returns a JSON object without a line end.
#pragma once

#include <cloudtunnel_module.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace module_program {

std::string state_line(std::string_view model, ctm_state state, const ctm_cause_info &cause);
std::string step_line(std::string_view model, ctm_step step);
std::string message_line(std::string_view model, const ctm_message &message);
std::string pong_line(std::string_view model, uint32_t round_trip_us);
std::string closed_line(std::string_view model, uint16_t status, std::string_view reason);
std::string writable_line(std::string_view model);

// refused_line answers a request that was not done, with the number of its line and the reason.
std::string refused_line(std::string_view model, long line_number, std::string_view why);

}  // namespace module_program
