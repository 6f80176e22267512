#include "request.h"

#include <json-c/json.h>

#include <climits>
#include <memory>

#include "base64.h"
#include "common/text.h"
#include "json.h"

namespace module_program {
namespace {

using common::BadInput;
using common::cat;
using common::printable;

constexpr int kDepth = 2;      // an object, and the values in it
constexpr size_t kShown = 60;  // bytes of an unknown key in a message

struct ObjectPut {
    void operator()(json_object *object) const { json_object_put(object); }
};
using Object = std::unique_ptr<json_object, ObjectPut>;

struct TokenerFree {
    void operator()(json_tokener *tokener) const { json_tokener_free(tokener); }
};

Object parse(std::string_view line) {
    if (line.size() >= INT_MAX) throw BadInput("too long");
    line.remove_suffix(line.size() - (line.find_last_not_of(" \t\r") + 1));
    if (line.empty()) throw BadInput("empty");
    // json-c accepts surrogates, for which a platform would close the tunnel.
    if (!is_utf8(line)) throw BadInput("not JSON: not UTF-8");
    const std::unique_ptr<json_tokener, TokenerFree> tokener(json_tokener_new_ex(kDepth));
    if (!tokener) throw std::bad_alloc();
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT);
    // The zero byte is parsed, too: it completes a number at the end of the line.
    const std::string text(line);
    Object object(json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size()) + 1));
    const json_tokener_error error = json_tokener_get_error(tokener.get());
    if (error != json_tokener_success) throw BadInput(cat("not JSON: ", json_tokener_error_desc(error)));
    if (json_tokener_get_parse_end(tokener.get()) < text.size()) throw BadInput("not JSON: more behind the object");
    if (!json_object_is_type(object.get(), json_type_object)) throw BadInput("not a JSON object");
    return object;
}

std::string text_of(std::string_view key, json_object *value) {
    if (!json_object_is_type(value, json_type_string)) throw BadInput(cat("\"", key, "\" is not a string"));
    return {json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value))};
}

std::string bytes_of(std::string_view key, json_object *value) {
    auto bytes = base64_decode(text_of(key, value));
    if (!bytes) throw BadInput(cat("\"", key, "\" is not base64"));
    return *bytes;
}

uint16_t status_of(std::string_view key, json_object *value) {
    const int64_t number = json_object_is_type(value, json_type_int) ? json_object_get_int64(value) : -1;
    if (number < 0 || number > UINT16_MAX) throw BadInput(cat("\"", key, "\" is not a number from 0 to 65535"));
    return static_cast<uint16_t>(number);
}

void expect_true(std::string_view key, json_object *value) {
    if (!json_object_is_type(value, json_type_boolean) || !json_object_get_boolean(value))
        throw BadInput(cat("\"", key, "\" is not true"));
}

// Reads the keys of an object, one after the other.
class Reader {
  public:
    void read(std::string_view key, json_object *value) {
        if (key == "send") {
            begin(Request::Kind::send);
            request_.data = text_of(key, value);
        } else if (key == "send_base64") {
            begin(Request::Kind::send);
            request_.type = CTM_BINARY;
            request_.data = bytes_of(key, value);
        } else if (key == "close") {
            begin(Request::Kind::close);
            request_.status = status_of(key, value);
        } else if (key == "open" || key == "ping") {
            begin(key == "open" ? Request::Kind::open : Request::Kind::ping);
            expect_true(key, value);
        } else if (key == "reason") {
            reason_ = text_of(key, value);
            has_reason_ = true;
        } else if (key == "model") {
            request_.model = text_of(key, value);
            if (request_.model.empty()) throw BadInput("\"model\" is empty");
        } else {
            throw BadInput(cat("unknown key \"", printable(key, kShown), "\""));
        }
    }

    Request end() {
        if (!begun_) throw BadInput("none of the keys send, send_base64, close, open and ping");
        if (has_reason_ && request_.kind != Request::Kind::close) throw BadInput("a reason without a close");
        if (has_reason_) request_.data = reason_;
        return std::move(request_);
    }

  private:
    void begin(Request::Kind kind) {
        if (begun_) throw BadInput("more than one of the keys send, send_base64, close, open and ping");
        begun_ = true;
        request_.kind = kind;
    }

    Request request_;
    bool begun_ = false;
    bool has_reason_ = false;
    std::string reason_;
};

}  // namespace

Request read_request(std::string_view line) {
    const Object object = parse(line);
    Reader reader;
    json_object_object_foreach(object.get(), key, value) { reader.read(key, value); }
    return reader.end();
}

}  // namespace module_program
