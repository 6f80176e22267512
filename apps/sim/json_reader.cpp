#include "json_reader.h"

#include <ctime>

#include "json_text.h"
#include "status.h"
#include "text.h"

namespace sim {
namespace {

void append_key(std::string &out, std::string_view name) {
    if (out.back() != '{') out += ',';
    append_json_string(out, name);
    out += ':';
}

void append_text(std::string &out, std::string_view name, std::string_view text) {
    append_key(out, name);
    append_json_string(out, text);
}

void append_field(std::string &out, const Field &field) {
    if (const Bytes *bytes = std::get_if<Bytes>(&field.value)) {
        if (is_utf8(bytes->bytes)) return append_text(out, field.name, bytes->bytes);
        append_key(out, cat(field.name, "_hex"));
        out += '"';
        append_hex(out, bytes->bytes);
        out += '"';
        return;
    }
    if (const std::string_view *text = std::get_if<std::string_view>(&field.value)) {
        return append_text(out, field.name, *text);
    }
    append_key(out, field.name);
    if (const std::int64_t *number = std::get_if<std::int64_t>(&field.value)) {
        out += std::to_string(*number);
    } else if (const bool *truth = std::get_if<bool>(&field.value)) {
        out += *truth ? "true" : "false";
    } else if (const JsonText *json = std::get_if<JsonText>(&field.value)) {
        out += json->text;
    } else {
        out += status_json(*std::get<const Status *>(field.value));
    }
}

}  // namespace

std::string json_header(const EventStream &events, std::string_view format, int version) {
    const std::time_t began = std::chrono::system_clock::to_time_t(events.began());
    std::tm utc = {};
    ::gmtime_r(&began, &utc);
    char text[sizeof "2000-01-01T00:00:00Z"] = "";
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return cat(R"({"format":")", format, R"(","version":)", version, R"(,"program":"cloudtunnel-sim )",
               CLOUDTUNNEL_SIM_VERSION, R"(","began":")", text, "\"}");
}

std::string event_json(const Event &event) {
    std::string out = R"({"time":)";
    append_seconds(out, seconds_of(event.time));
    append_text(out, "source", source_name(event.source));
    if (event.id != 0) {
        append_key(out, "id");
        out += std::to_string(event.id);
    }
    if (!event.model.empty()) append_text(out, "model", event.model);
    append_text(out, "kind", kind_row(event.kind).name);
    if (!event.cause.empty()) append_text(out, "cause", event.cause);
    if (!event.fields.empty()) {
        append_key(out, "fields");
        out += '{';
        for (const Field &field : event.fields) append_field(out, field);
        out += '}';
    }
    out += '}';
    return out;
}

JsonReader::JsonReader(EventStream &events, const std::string &file, Detail detail)
    : file_(file, OutputFile::For::all, OutputFile::At::start) {
    file_.write_line(json_header(events, kJsonFormat, kJsonVersion));
    subscription_ =
        events.subscribe(kinds_up_to(detail), [this](const Event &event) { file_.write_line(event_json(event)); });
}

}  // namespace sim
