// The lines of the module program, both ways. What a handler writes, cut into reads in any way, becomes the lines and
// the requests of the whole; what is no request is refused with a reason on one line; a request carries no more than
// its line did, and its texts are UTF-8. What the program writes about any bytes is one JSON object on one line, which
// another reader takes for the same bytes, and which sent back is the same message.
#include <json-c/json.h>
#include <openssl/evp.h>

#include <algorithm>
#include <memory>

#include "apps/common/text.h"
#include "apps/module/base64.h"
#include "apps/module/events.h"
#include "apps/module/json.h"
#include "apps/module/line_reader.h"
#include "apps/module/request.h"
#include "tests/fuzz/fuzz.h"

namespace {

using common::cat;
using namespace module_program;

// ---------------------------------------------------------------------------------------------------------- UTF-8

std::string encoded(uint32_t point) {
    if (point < 0x80) return {static_cast<char>(point)};
    const auto last = static_cast<char>(0x80 | (point & 0x3f));
    if (point < 0x800) return {static_cast<char>(0xc0 | point >> 6), last};
    const auto third = static_cast<char>(0x80 | (point >> 6 & 0x3f));
    if (point < 0x10000) return {static_cast<char>(0xe0 | point >> 12), third, last};
    return {static_cast<char>(0xf0 | point >> 18), static_cast<char>(0x80 | (point >> 12 & 0x3f)), third, last};
}

// character_of returns the UTF-8 character in front of a text, empty where there is none. It takes the bytes apart and
// puts them together again: only the right form of a character comes back.
std::string_view character_of(std::string_view text) {
    const auto first = static_cast<uint8_t>(text.front());
    const size_t size = first < 0xc0 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    uint32_t point = size == 1 ? first : first & (0x7fU >> size);
    for (const char c : text.substr(1, size - 1)) point = point << 6 | (static_cast<uint8_t>(c) & 0x3f);
    const bool is_one =
        point <= 0x10ffff && (point < 0xd800 || point > 0xdfff) && encoded(point) == text.substr(0, size);
    return is_one ? text.substr(0, size) : std::string_view();
}

// replaced returns a text with U+FFFD in place of each byte that belongs to no character.
std::string replaced(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::string_view character = character_of(text);
        out += character.empty() ? "\xef\xbf\xbd" : character;
        text.remove_prefix(std::max<size_t>(character.size(), 1));
    }
    return out;
}

bool well_formed(std::string_view text) { return replaced(text) == text; }

bool on_one_line(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<uint8_t>(c) >= ' ' && c != 0x7f; });
}

// ---------------------------------------------------------------------------------------------------------- requests

// outcome_of returns what comes of a line, as a text that is another one for every other outcome.
std::string outcome_of(long number, std::optional<std::string_view> line) try {
    if (!line) return cat(number, " too long");
    const Request request = read_request(*line);
    FUZZ_CHECK(request.data.size() + request.model.size() <= line->size());
    FUZZ_CHECK(well_formed(request.model));
    FUZZ_CHECK(request.type == CTM_BINARY || well_formed(request.data));
    return cat(number, " request ", static_cast<int>(request.kind), " ", request.type, " ", request.status, " ",
               request.model.size(), " ", request.model, request.data);
} catch (const common::BadInput &bad) {
    FUZZ_CHECK(on_one_line(bad.what()) && well_formed(bad.what()));
    return cat(number, " bad: ", bad.what());
}

std::vector<std::string> outcomes_of_whole(std::string_view bytes, size_t longest) {
    std::vector<std::string> outcomes;
    for (long number = 1; !bytes.empty(); number++) {
        const std::string_view line = bytes.substr(0, bytes.find('\n'));
        outcomes.push_back(outcome_of(number, line.size() > longest ? std::nullopt : std::optional(line)));
        bytes.remove_prefix(std::min(line.size() + 1, bytes.size()));
    }
    return outcomes;
}

std::vector<std::string> outcomes_of_reads(const std::vector<std::string_view> &reads, size_t longest) {
    std::vector<std::string> outcomes;
    const LineReader::Take take = [&](long number, std::optional<std::string_view> line) {
        FUZZ_CHECK(!line || line->size() <= longest);
        outcomes.push_back(outcome_of(number, line));
    };
    LineReader reader(longest);
    for (const std::string_view read : reads) reader.read(read, take);
    reader.end(take);
    return outcomes;
}

void check_requests(std::string_view bytes, const fuzz::Pieces &pieces, size_t longest) {
    const auto whole = outcomes_of_whole(bytes, longest);
    FUZZ_CHECK(outcomes_of_reads(pieces.of(bytes), longest) == whole);
    std::vector<std::string_view> single;
    for (size_t at = 0; at < bytes.size(); at++) single.push_back(bytes.substr(at, 1));
    FUZZ_CHECK(outcomes_of_reads(single, longest) == whole);
}

// ---------------------------------------------------------------------------------------------------------- base64

// check_one_form: bytes have one form only, so what is decoded at all is encoded to the same text.
void check_one_form(std::string_view text) {
    const auto decoded = base64_decode(text);
    FUZZ_CHECK(!decoded || base64_encode(*decoded) == text);
}

char right_character(char byte) {
    return "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"[byte & 0x3f];
}

void check_base64(std::string_view bytes, size_t padding) {
    std::string right((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(right.data()),
                        reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<int>(bytes.size()));
    right.resize(static_cast<size_t>(length));
    FUZZ_CHECK(base64_encode(bytes) == right);
    FUZZ_CHECK(base64_decode(right) == bytes);
    check_one_form(bytes);
    // The same with characters that base64 knows, so that most of the texts are decoded.
    std::string text;
    for (const char byte : bytes.substr(0, bytes.size() / 4 * 4)) text += right_character(byte);
    padding = std::min(padding, text.size());
    text.replace(text.size() - padding, padding, padding, '=');
    check_one_form(text);
}

// ---------------------------------------------------------------------------------------------------------- events

// A line that the program writes, as json-c reads it.
class Event {
  public:
    explicit Event(const std::string &line) {
        FUZZ_CHECK(on_one_line(line) && well_formed(line));
        json_tokener *const tokener = json_tokener_new();
        json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
        object_.reset(json_tokener_parse_ex(tokener, line.data(), static_cast<int>(line.size())));
        FUZZ_CHECK(json_tokener_get_error(tokener) == json_tokener_success);
        FUZZ_CHECK(json_tokener_get_parse_end(tokener) == line.size());
        FUZZ_CHECK(json_object_is_type(object_.get(), json_type_object));
        json_tokener_free(tokener);
    }

    bool has(const char *key) const { return json_object_object_get_ex(object_.get(), key, nullptr); }

    std::string text(const char *key) const {
        json_object *const value = json_object_object_get(object_.get(), key);
        FUZZ_CHECK(json_object_is_type(value, json_type_string));
        return {json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value))};
    }

    bool has_text(const char *key, std::string_view written) const { return text(key) == replaced(written); }

    // Whether the key has this number; 0 may be left out.
    bool has_number(const char *key, int64_t number) const {
        json_object *const value = json_object_object_get(object_.get(), key);
        if (!value) return number == 0;
        return json_object_is_type(value, json_type_int) && json_object_get_int64(value) == number;
    }

  private:
    struct Put {
        void operator()(json_object *object) const { json_object_put(object); }
    };
    std::unique_ptr<json_object, Put> object_;
};

void check_sent_back(const std::string &line, ctm_type type, std::string_view bytes) {
    FUZZ_CHECK(line.size() <= longest_request(bytes.size()));
    const Request request = read_request(line);
    FUZZ_CHECK(request.kind == Request::Kind::send && request.type == type && request.data == bytes);
}

void check_message(std::string_view model, ctm_type type, std::string_view bytes) {
    ctm_message message = {};
    message.size = sizeof message;
    message.type = type;
    message.data = bytes.data();
    message.length = bytes.size();
    const Event event(message_line(model, message));
    FUZZ_CHECK(event.text("event") == "message" && event.has_text("model", model));
    FUZZ_CHECK(event.text("type") == (type == CTM_TEXT ? "text" : "binary"));
    const bool as_text = type == CTM_TEXT && well_formed(bytes);
    FUZZ_CHECK(event.has("text") == as_text && event.has("base64") != as_text);
    FUZZ_CHECK((as_text ? event.text("text") : base64_decode(event.text("base64"))) == bytes);
    if (as_text)
        check_sent_back("{\"send\":" + json_string(bytes) + "}", CTM_TEXT, bytes);
    else
        check_sent_back("{\"send_base64\":\"" + base64_encode(bytes) + "\"}", CTM_BINARY, bytes);
}

void check_state(std::string_view model, int32_t number, std::string_view text) {
    ctm_cause_info cause = {};
    cause.size = sizeof cause;
    cause.cause = CTM_CAUSE_TLS;
    cause.http_status = cause.system_error = cause.resolver_error = cause.ret_code = cause.close_status = number;
    text = text.substr(0, std::min(text.find('\0'), sizeof cause.detail - 1));
    text.copy(cause.detail, text.size());
    text.copy(cause.tls_error, text.size());
    const Event event(state_line(model, CTM_PAUSING, cause));
    FUZZ_CHECK(event.text("event") == "state" && event.has_text("model", model));
    FUZZ_CHECK(event.text("state") == "pausing" && event.text("cause") == "tls");
    for (const char *key : {"http_status", "errno", "resolver_error", "ret_code", "close_status"})
        FUZZ_CHECK(event.has_number(key, number));
    FUZZ_CHECK(event.has_text("detail", text));
    FUZZ_CHECK(text.empty() ? !event.has("tls_error") : event.has_text("tls_error", text));
}

void check_others(std::string_view model, uint32_t number, std::string_view bytes) {
    const auto status = static_cast<uint16_t>(number);
    const Event closed(closed_line(model, status, bytes));
    FUZZ_CHECK(closed.has_text("model", model) && closed.has_text("reason", bytes));
    FUZZ_CHECK(closed.has_number("status", status));
    const Event refused(refused_line(model, number, bytes));
    FUZZ_CHECK(refused.has_text("model", model) && refused.has_text("result", bytes));
    FUZZ_CHECK(refused.has_number("line", number));
    FUZZ_CHECK(Event(pong_line(model, number)).has_number("round_trip_us", number));
    FUZZ_CHECK(Event(step_line(model, CTM_STEP_TCP)).has_text("model", model));
    FUZZ_CHECK(Event(writable_line(model)).has_text("model", model));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const fuzz::Run run;
    fuzz::Input in(data, size);
    const size_t longest = in.byte();
    const auto number = static_cast<uint32_t>(in.number(4));
    const fuzz::Pieces pieces(in);
    const std::string_view bytes = in.rest();
    const std::string_view model = bytes.substr(0, CTM_NAME_MAX);
    check_requests(bytes, pieces, longest);
    check_base64(bytes, number % 4);
    check_message(model, CTM_TEXT, bytes);
    check_message(model, CTM_BINARY, bytes);
    check_state(model, static_cast<int32_t>(number), bytes);
    check_others(model, number, bytes);
    return 0;
}
