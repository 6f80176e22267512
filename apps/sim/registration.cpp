#include "registration.h"

#include <cstdint>
#include <memory>

#include <json-c/json.h>

#include "text.h"

namespace sim {
namespace {

struct Put {
    void operator()(json_object *object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, Put>;

std::string text_of(json_object *object, const char *key) {
    json_object *value = nullptr;
    if (!json_object_object_get_ex(object, key, &value)) return {};
    return json_object_is_type(value, json_type_string) ? json_object_get_string(value) : "";
}

void expect_number(Registration &out, json_object *object, const char *key, std::int32_t wanted) {
    json_object *value = nullptr;
    if (!json_object_object_get_ex(object, key, &value) || !json_object_is_type(value, json_type_int)) {
        out.problems.push_back(cat(key, " is no number"));
    } else if (json_object_get_int(value) != wanted) {
        out.problems.push_back(cat(key, " is ", json_object_get_int(value), ", expected ", wanted));
    }
}

void expect_text(Registration &out, json_object *object, const char *key, const std::string &wanted) {
    const std::string got = text_of(object, key);
    if (got != wanted) out.problems.push_back(cat(key, " is '", printable(got), "', expected '", wanted, "'"));
}

void expect_order(Registration &out, json_object *object) {
    const std::string wanted = cat("optType ", out.model == "base" ? "platform " : "",
                                   "lastDownReason errorCode socketErrno cloudModName tokenID devSN devModName ");
    std::string got;
    json_object_object_foreach(object, key, value) {
        (void)value;
        got += cat(key, " ");
    }
    if (got != wanted) out.problems.push_back(cat("keys are ", printable(got), "- expected ", wanted));
}

}  // namespace

Registration check_registration(const std::string &text, const TunnelData &tunnel_data) {
    Registration out;
    const Json object(json_tokener_parse(text.c_str()));
    if (!json_object_is_type(object.get(), json_type_object)) {
        out.problems.emplace_back("the text is no JSON object");
        return out;
    }
    out.model = text_of(object.get(), "cloudModName");
    out.device_model = text_of(object.get(), "devModName");
    out.serial = text_of(object.get(), "devSN");

    expect_order(out, object.get());
    expect_number(out, object.get(), "optType", 1);
    if (out.model == "base") expect_text(out, object.get(), "platform", "wpt");
    expect_number(out, object.get(), "lastDownReason", tunnel_data.last_down.reason);
    expect_number(out, object.get(), "errorCode", tunnel_data.last_down.error_code);
    expect_number(out, object.get(), "socketErrno", tunnel_data.last_down.socket_errno);
    expect_text(out, object.get(), "tokenID", tunnel_data.token);
    if (out.model.empty()) out.problems.emplace_back("cloudModName is empty");
    if (out.serial.empty()) out.problems.emplace_back("devSN is empty");
    if (out.device_model.empty()) out.problems.emplace_back("devModName is empty");
    return out;
}

}  // namespace sim
