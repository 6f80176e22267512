#include "base/json.h"

#include <json-c/json.h>

const char *cloudtunnel_json_ObjectToString(json_object *object) {
    return object ? json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN) : nullptr;
}

json_object *cloudtunnel_json_StringToObject(const char *text) { return text ? json_tokener_parse(text) : nullptr; }

json_object *cloudtunnel_json_GetObject(json_object *object, const char *key) {
    json_object *member = nullptr;  // and stays so where there is no such member
    if (key) json_object_object_get_ex(object, key, &member);
    return member;
}

void json_add(json_object *object, const char *key, json_object *value) {
    if (json_object_object_add(object, key, value) != 0) json_object_put(value);
}
