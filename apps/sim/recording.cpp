#include "recording.h"

#include <array>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>

#include <json-c/json.h>

#include "recorder.h"
#include "text.h"

namespace sim {
namespace {

using Of = ModuleBytes::Of;

constexpr double kLongest = 1e8;             // seconds; a time behind that is none
constexpr std::size_t kLineMax = 400 << 20;  // the largest frame fits, each of its bytes as \u0000

struct Put {
    void operator()(json_object *object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, Put>;

// Why a line is wrong; the reader puts the place in front.
class BadLine : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// parse_line is null when the line is not one whole JSON object.
Json parse_line(const std::string &line) {
    const std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(), json_tokener_free);
    static_assert(kLineMax < INT32_MAX);
    if (line.find('\0') != std::string::npos) return nullptr;
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT);
    Json object(json_tokener_parse_ex(tokener.get(), line.c_str(), static_cast<int>(line.size()) + 1));
    if (json_tokener_get_error(tokener.get()) != json_tokener_success) return nullptr;
    return json_object_is_type(object.get(), json_type_object) ? std::move(object) : nullptr;
}

json_object *member(json_object *object, const char *key) {
    json_object *value = nullptr;
    return json_object_object_get_ex(object, key, &value) ? value : nullptr;
}

// is_end is true for {"end":true}; in an event "end" is a field as any other.
bool is_end(json_object *object) {
    json_object *const end = member(object, "end");
    return json_object_is_type(end, json_type_boolean) && json_object_get_boolean(end) && !member(object, "kind");
}

// text_of is an empty text when there is no such member.
std::string text_of(json_object *object, const char *key) {
    json_object *const value = member(object, key);
    if (!value) return {};
    if (!json_object_is_type(value, json_type_string)) throw BadLine(cat("'", key, "' is no text"));
    return {json_object_get_string(value), static_cast<std::size_t>(json_object_get_string_len(value))};
}

std::chrono::steady_clock::duration time_of(json_object *event) {
    json_object *const value = member(event, "time");
    const bool number = json_object_is_type(value, json_type_double) || json_object_is_type(value, json_type_int);
    const double seconds = number ? json_object_get_double(value) : -1;
    if (!(seconds >= 0 && seconds < kLongest)) throw BadLine("'time' is no number of seconds");
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

int id_of(json_object *event) {
    json_object *const value = member(event, "id");
    const std::int64_t id = json_object_is_type(value, json_type_int) ? json_object_get_int64(value) : 0;
    if (id < 1 || id > INT32_MAX) throw BadLine("'id' is no number of a link or tunnel");
    return static_cast<int>(id);
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    throw BadLine("'bytes_hex' has a character that is no hexadecimal digit");
}

std::string bytes_of(json_object *fields) {
    if (member(fields, "bytes")) return text_of(fields, "bytes");
    if (!member(fields, "bytes_hex")) throw BadLine("it has neither 'bytes' nor 'bytes_hex'");
    const std::string hex = text_of(fields, "bytes_hex");
    if (hex.size() % 2 != 0) throw BadLine("'bytes_hex' has an odd number of digits");
    std::string out;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        out += static_cast<char>(hex_digit(hex[i]) << 4 | hex_digit(hex[i + 1]));
    }
    return out;
}

// Builds the entries out of the lines.
class Reader {
  public:
    // take_line returns false at the last line of a recording.
    bool take_line(const std::string &text);
    Recording finish();
    [[nodiscard]] std::size_t line() const { return line_; }

  private:
    struct Peer {
        ModuleBytes in;
        bool ended = false;
    };

    static void check_header(json_object *header);
    void take_event(json_object *event);
    void take_platform(json_object *fields);
    void open(Act act, Of of);
    Peer &peer(Of of);
    void end(json_object *event, Of of);
    void add_units(Of of, Key key);
    Entry &add(Act act, Of of);

    Recording out_;
    std::map<std::pair<Of, int>, Peer> peers_;
    std::size_t line_ = 0;
    int id_ = 0;
    std::chrono::steady_clock::duration time_{};
    bool whole_ = false;
};

bool Reader::take_line(const std::string &text) {
    line_++;
    const Json object = parse_line(text);
    if (!object) throw BadLine(line_ == 1 ? "not a recording: no JSON object" : "no JSON object");
    if (line_ == 1) {
        check_header(object.get());
        return true;
    }
    whole_ = is_end(object.get());
    if (!whole_) take_event(object.get());
    return !whole_;
}

void Reader::check_header(json_object *header) {
    const std::string format = text_of(header, "format");
    if (format != kRecordingFormat) {
        throw BadLine(cat("not a recording: its format is '", printable(format), "', not '", kRecordingFormat, "'"));
    }
    json_object *const version = member(header, "version");
    if (!json_object_is_type(version, json_type_int) || json_object_get_int64(version) != kRecordingVersion) {
        throw BadLine(cat("a recording of version ",
                          version ? printable(json_object_to_json_string(version)) : "(none)",
                          ", and this program reads version ", kRecordingVersion));
    }
}

void Reader::take_event(json_object *event) {
    const std::string kind = text_of(event, "kind");
    if (kind.empty()) throw BadLine("it has no 'kind'");
    const auto time = time_of(event);
    if (time < time_) throw BadLine("'time' is before that of the line before");
    time_ = time;
    json_object *const fields = member(event, "fields");
    if (fields && !json_object_is_type(fields, json_type_object)) throw BadLine("'fields' is no object");
    const auto is = [&](Kind wanted) { return kind == kind_row(wanted).name; };

    if (is(Kind::platform_listening)) return take_platform(fields);
    if (is(Kind::daemon_listening) || is(Kind::daemon_stopped)) {
        out_.has_daemon = true;
        add(is(Kind::daemon_stopped) ? Act::daemon_stops : Act::daemon_starts, Of::link);
        return;
    }
    const bool link_event =
        is(Kind::link_opened) || is(Kind::link_bytes_received) || is(Kind::link_bytes_sent) || is(Kind::link_ended);
    const bool tunnel_event = is(Kind::connected) || is(Kind::bytes_received) || is(Kind::bytes_sent) ||
                              is(Kind::frame_received) || is(Kind::tunnel_ended);
    if (const std::string model = text_of(event, "model"); !model.empty() && text_of(event, "source") == "tunnel") {
        out_.tunnel_models.emplace(id_of(event), model);
    }
    if (!link_event && !tunnel_event) return;

    const Of of = link_event ? Of::link : Of::tunnel;
    id_ = id_of(event);
    if (is(Kind::link_opened) || is(Kind::connected))
        return open(link_event ? Act::link_opens : Act::tunnel_connects, of);
    if (is(Kind::link_ended) || is(Kind::tunnel_ended)) return end(event, of);
    if (is(Kind::frame_received)) {
        json_object *const keyless = member(fields, "keyless");
        if (keyless && json_object_get_boolean(keyless)) add_units(of, Key::left_out);
        return;
    }
    Peer &from = peer(of);
    if (is(Kind::link_bytes_sent) || is(Kind::bytes_sent)) {
        add(Act::simulator_sends, of).bytes = bytes_of(fields);
    } else {
        from.in.add(bytes_of(fields));
        add_units(of, Key::follows);
    }
}

void Reader::take_platform(json_object *fields) {
    const std::string address = text_of(fields, "address");
    const auto port = common::parse_number(address.substr(address.rfind(':') + 1), 1, UINT16_MAX);
    if (!port) throw BadLine("'address' has no port");
    if (!out_.has_platform) out_.plain = text_of(fields, "transport") == "plain";
    out_.has_platform = true;
    out_.ports.insert(static_cast<std::uint16_t>(*port));
}

void Reader::open(Act act, Of of) {
    if (of == Of::link && !out_.has_daemon) throw BadLine("no 'daemon-listening' stands before it");
    if (of == Of::tunnel && !out_.has_platform) throw BadLine("no 'platform-listening' stands before it");
    if (!peers_.emplace(std::pair(of, id_), Peer{ModuleBytes(of)}).second) throw BadLine("its number was used before");
    add(act, of);
}

Reader::Peer &Reader::peer(Of of) {
    const auto found = peers_.find({of, id_});
    const std::string_view name = of == Of::link ? "link " : "tunnel ";
    if (found == peers_.end()) throw BadLine(cat(name, id_, " has not been opened before"));
    if (found->second.ended) throw BadLine(cat(name, id_, " has ended before"));
    return found->second;
}

// The cause is written by the simulator: it tells which end was first.
void Reader::end(json_object *event, Of of) {
    Peer &from = peer(of);
    add_units(of, Key::left_out);
    if (const std::size_t rest = from.in.left().size(); rest > 0) {
        if (auto unit = from.in.take(rest)) add(Act::module_sends, of).unit = std::move(*unit);
    }
    from.ended = true;
    const std::string cause = text_of(event, "cause");
    const auto says = [&cause](std::string_view words) { return cause.find(words) != std::string::npos; };
    if (says("by the module")) {
        add(Act::module_ends, of);
    } else {
        add(says("reset by the platform") ? Act::simulator_resets : Act::simulator_ends, of);
    }
}

void Reader::add_units(Of of, Key key) {
    Peer &from = peer(of);
    while (auto unit = from.in.next(key)) {
        add(Act::module_sends, of).unit = std::move(*unit);
        key = Key::follows;
    }
}

Entry &Reader::add(Act act, Of of) {
    Entry &entry = out_.entries.emplace_back();
    entry.act = act;
    entry.of = of;
    entry.id = id_;
    entry.line = line_;
    entry.time = time_;
    return entry;
}

Recording Reader::finish() {
    if (!whole_ && out_.cut.empty()) out_.cut = cat("the recording is cut behind line ", line_);
    if (!out_.has_platform && !out_.has_daemon) throw BadLine("neither platform nor daemon stands in it");
    return std::move(out_);
}

}  // namespace

// read_line is std::getline with a bound: a device or a pipe may have no end. False when the bound is passed, too.
static bool read_line(std::istream &in, std::string &line) {
    std::array<char, 65536> piece;
    line.clear();
    for (;;) {
        in.getline(piece.data(), piece.size());
        const auto size = static_cast<std::size_t>(in.gcount());
        if (in.good()) {
            line.append(piece.data(), size - 1);  // the line end counts, and is not kept
            return true;
        }
        line.append(piece.data(), size);
        if (in.eof() || in.bad()) return !line.empty();
        if (line.size() > kLineMax) return false;
        in.clear();  // the line is longer than the piece
    }
}

// A last line without its end was cut while it was written, unless it is whole by chance.
Recording read_recording(std::istream &in, const std::string &name) {
    Reader reader;
    try {
        bool more = true;
        std::string line;
        while (more && read_line(in, line)) {
            if (in.eof() && reader.line() > 0 && !parse_line(line)) break;
            more = reader.take_line(line);
        }
        if (line.size() > kLineMax) {
            throw BadInput(cat(name, ": line ", reader.line() + 1, " is longer than ", kLineMax, " bytes"));
        }
        if (in.bad()) throw BadInput(cat("cannot read ", name));
        if (reader.line() == 0) throw BadInput(cat(name, ": not a recording: it is empty"));
        return reader.finish();
    } catch (const BadLine &bad) {
        throw BadInput(cat(name, ": line ", reader.line(), ": ", bad.what()));
    }
}

Recording read_recording_file(const std::string &name) {
    std::ifstream file(name);
    if (!file) throw BadInput(cat("cannot read ", name));
    return read_recording(file, name);
}

}  // namespace sim
