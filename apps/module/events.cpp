#include "events.h"

#include "base64.h"
#include "json.h"

namespace module_program {

std::string state_line(std::string_view model, ctm_state state, const ctm_cause_info &cause) {
    JsonObject line("state", model);
    line.add("state", ctm_state_name(state));
    line.add("cause", ctm_cause_name(cause.cause));
    line.add("detail", cause.detail);
    if (cause.http_status != 0) line.add("http_status", cause.http_status);
    if (cause.system_error != 0) line.add("errno", cause.system_error);
    if (cause.resolver_error != 0) line.add("resolver_error", cause.resolver_error);
    if (cause.ret_code != 0) line.add("ret_code", cause.ret_code);
    if (cause.close_status != 0) line.add("close_status", cause.close_status);
    if (cause.tls_error[0] != '\0') line.add("tls_error", cause.tls_error);
    return line.text();
}

std::string step_line(std::string_view model, ctm_step step) {
    JsonObject line("step", model);
    line.add("step", ctm_step_name(step));
    return line.text();
}

// JSON cannot hold a text that is not UTF-8, so such a text goes out in base64; its type stays "text".
std::string message_line(std::string_view model, const ctm_message &message) {
    const std::string_view data(message.data, message.length);
    JsonObject line("message", model);
    line.add("type", message.type == CTM_BINARY ? "binary" : "text");
    if (message.type == CTM_TEXT && is_utf8(data))
        line.add("text", data);
    else
        line.add("base64", base64_encode(data));
    return line.text();
}

std::string pong_line(std::string_view model, uint32_t round_trip_us) {
    JsonObject line("pong", model);
    line.add("round_trip_us", round_trip_us);
    return line.text();
}

std::string closed_line(std::string_view model, uint16_t status, std::string_view reason) {
    JsonObject line("closed", model);
    line.add("status", status);
    line.add("reason", reason);
    return line.text();
}

std::string writable_line(std::string_view model) { return JsonObject("writable", model).text(); }

std::string refused_line(std::string_view model, long line_number, std::string_view why) {
    JsonObject line("refused", model);
    line.add("line", line_number);
    line.add("result", why);
    return line.text();
}

}  // namespace module_program
