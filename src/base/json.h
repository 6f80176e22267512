// Null-safe wrappers around json-c.
#pragma once

struct json_object;

// cloudtunnel_json_ObjectToString returns the object as text without blanks, which belongs to the object; null for
// null.
const char *cloudtunnel_json_ObjectToString(json_object *object);

// cloudtunnel_json_StringToObject parses a text; the caller releases the object with json_object_put. Null when the
// text is null or no JSON.
json_object *cloudtunnel_json_StringToObject(const char *text);

// cloudtunnel_json_GetObject returns the member `key`, which belongs to the object; null when there is none.
json_object *cloudtunnel_json_GetObject(json_object *object, const char *key);

// json_add adds `value` to the object as its member `key`, a null value as JSON's null, and gives it to the object. If
// memory is short, it releases the value and the member is missing.
void json_add(json_object *object, const char *key, json_object *value);
