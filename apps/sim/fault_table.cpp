// The rows of the table: what each fault is called, what it takes and where it applies.
#include <array>

#include "fault.h"

namespace sim {
namespace {

constexpr long kHour = 3600L * 1000;
constexpr long kSizeMax = 64L << 20;

constexpr std::array<bool, 5> kEveryStage = {true, true, true, true, true};
constexpr std::array<bool, 5> kFromTls = {false, true, true, true, true};  // where bytes flow
constexpr std::array<bool, 5> kAnswers = {false, false, true, true, false};
constexpr std::array<bool, 5> kInTls = {false, false, true, true, true};
constexpr std::array<bool, 5> kFrames = {false, false, false, true, true};

constexpr Parameter time_of(std::string_view name, std::string_view help, std::optional<long> initial = {}) {
    return {.name = name, .unit = Unit::time, .min = 0, .max = kHour, .initial = initial, .help = help};
}

constexpr Parameter size_of(std::string_view name, std::string_view help, std::optional<long> initial = {}) {
    return {.name = name, .unit = Unit::size, .min = 1, .max = kSizeMax, .initial = initial, .help = help};
}

// A size that stays below what a header or a body of an answer may have.
constexpr Parameter small_size_of(std::string_view name, long min, std::string_view help, long initial) {
    return {.name = name, .unit = Unit::size, .min = min, .max = 1L << 20, .initial = initial, .help = help};
}

constexpr Parameter text_of(std::string_view name, long max, std::string_view help) {
    return {.name = name, .unit = Unit::text, .min = 1, .max = max, .help = help};
}

constexpr Parameter rate_of(std::string_view name, std::string_view help) {
    return {.name = name, .unit = Unit::rate, .min = 1, .max = kSizeMax, .help = help};
}

constexpr Parameter number_of(std::string_view name, long min, long max, std::string_view help,
                              std::optional<long> initial = {}) {
    return {.name = name, .min = min, .max = max, .initial = initial, .help = help};
}

constexpr Parameter word_of(std::string_view name, std::span<const std::string_view> choices, std::string_view help,
                            std::optional<long> initial = {}) {
    return {.name = name, .unit = Unit::word, .initial = initial, .help = help, .choices = choices};
}

constexpr std::string_view kBodies[] = {"length", "chunks", "close"};
constexpr std::string_view kHeaderFaults[] = {"wrong", "missing", "doubled", "folded", "respelled"};
constexpr std::string_view kHeaders[] = {"accept", "upgrade", "connection"};
constexpr std::string_view kNoHttp[] = {"ssh", "no-status", "binary"};
constexpr std::string_view kEarlyFrames[] = {"ping", "text", "answer", "close"};
constexpr std::string_view kJson[] = {"cut",     "text", "empty",   "array",  "no-type", "no-code", "strings",
                                      "objects", "nul",  "doubled", "binary", "deep",    "huge"};
constexpr std::string_view kAnswerOpcodes[] = {"binary", "ping", "pong", "close", "continuation"};
constexpr std::string_view kLengthForms[] = {"16", "64"};
constexpr std::string_view kBetween[] = {"nothing", "ping", "pong"};
constexpr std::string_view kCloseBodies[] = {"full", "none", "half"};

constexpr std::string_view kTlsVersions[] = {"1.0", "1.1", "1.2", "1.3"};
constexpr std::string_view kCertificates[] = {"expired", "other-name", "unknown-issuer", "chain"};
constexpr std::string_view kChanges[] = {"nothing", "port", "host", "path", "token"};

constexpr long kInt32Min = -2147483648L;
constexpr long kInt32Max = 2147483647L;
constexpr long kInt64Max = 9223372036854775807L;

constexpr FaultRow kRows[] = {
    {.kind = FaultKind::latency,
     .family = Family::network,
     .name = "latency",
     .help = "every byte arrives that much later, give or take the jitter",
     .parameters = {time_of("time", "the delay"), time_of("jitter", "at most so much more or less", 0)},
     .stages = kEveryStage,
     .directed = true},
    {.kind = FaultKind::jitter,
     .family = Family::network,
     .name = "jitter",
     .help = "each piece of data arrives up to that much later, in its order",
     .parameters = {time_of("time", "the longest delay")},
     .stages = kFromTls,
     .directed = true},
    {.kind = FaultKind::bandwidth,
     .family = Family::network,
     .name = "bandwidth",
     .help = "no more than that many bytes a second pass",
     .parameters = {rate_of("rate", "bytes a second")},
     .stages = kFromTls,
     .directed = true},
    {.kind = FaultKind::slicer,
     .family = Family::network,
     .name = "slicer",
     .help = "data arrive in pieces of that size, with a pause between two",
     .parameters = {size_of("size", "bytes in a piece"), time_of("pause", "between two pieces", 1)},
     .stages = kFromTls,
     .directed = true},
    {.kind = FaultKind::limit_data,
     .family = Family::network,
     .name = "limit_data",
     .help = "the connection ends after that many bytes, TLS included",
     .parameters = {size_of("size", "bytes that still pass")},
     .stages = kFromTls,
     .directed = true},
    {.kind = FaultKind::timeout,
     .family = Family::network,
     .name = "timeout",
     .help = "the connection stays and no byte passes, until it ends after the time (0: it stays)",
     .parameters = {time_of("time", "until the connection ends", 0)},
     .stages = kEveryStage,
     .directed = true},
    {.kind = FaultKind::reset_peer,
     .family = Family::network,
     .name = "reset_peer",
     .help = "the connection is reset after the time",
     .parameters = {time_of("time", "until the reset", 0)},
     .stages = kEveryStage},
    {.kind = FaultKind::slow_close,
     .family = Family::network,
     .name = "slow_close",
     .help = "the platform's end of the TCP connection comes that much later",
     .parameters = {time_of("time", "the delay")},
     .stages = kFromTls},
    {.kind = FaultKind::half_close,
     .family = Family::network,
     .name = "half_close",
     .help = "the platform ends its direction of the TCP connection and goes on reading",
     .stages = kEveryStage},
    {.kind = FaultKind::tls_version,
     .family = Family::tls,
     .name = "tls_version",
     .help = "the platform speaks this version of TLS only; OpenSSL's clients take 1.2 and 1.3",
     .parameters = {word_of("version", kTlsVersions, "the version")}},
    {.kind = FaultKind::tls_alert,
     .family = Family::tls,
     .name = "tls_alert",
     .help = "the handshake is answered with a fatal alert",
     .parameters = {number_of("code", 0, 255, "its number; 40 is a failed handshake", 40)}},
    {.kind = FaultKind::tls_garbage,
     .family = Family::tls,
     .name = "tls_garbage",
     .help = "the handshake is answered with random bytes",
     .parameters = {small_size_of("size", 1, "how many", 64)}},
    {.kind = FaultKind::certificate,
     .family = Family::tls,
     .name = "certificate",
     .help = "the platform shows another certificate",
     .parameters = {word_of("which", kCertificates, "what is wrong with it; a chain is right and long"),
                    number_of("issuers", 1, 500, "certificates in a chain besides it", 50)}},
    {.kind = FaultKind::rekey,
     .family = Family::tls,
     .name = "rekey",
     .help = "the session takes other keys: by a KeyUpdate in TLS 1.3, by a renegotiation in TLS 1.2",
     .stages = kInTls},
    {.kind = FaultKind::no_close_notify,
     .family = Family::tls,
     .name = "no_close_notify",
     .help = "the connection ends without the TLS close alert"},
    {.kind = FaultKind::status,
     .family = Family::upgrade,
     .name = "status",
     .help = "the upgrade is answered with that status, and a body where there is a size",
     .parameters = {number_of("code", 100, 599, "the status"), small_size_of("body", 0, "bytes of the body", 0),
                    word_of("by", kBodies, "how the body's end is known", 0)}},
    {.kind = FaultKind::redirect,
     .family = Family::upgrade,
     .name = "redirect",
     .help = "the upgrade is answered with a redirect",
     .parameters = {number_of("code", 300, 399, "the status"), text_of("location", 200, "its Location")}},
    {.kind = FaultKind::retry_after,
     .family = Family::upgrade,
     .name = "retry_after",
     .help = "the upgrade is answered with status 503 and a Retry-After",
     .parameters = {number_of("seconds", 0, 86400, "its value")}},
    {.kind = FaultKind::informational,
     .family = Family::upgrade,
     .name = "informational",
     .help = "an answer of that 1xx status comes before the right one",
     .parameters = {number_of("code", 100, 199, "the status")}},
    {.kind = FaultKind::other_status,
     .family = Family::upgrade,
     .name = "other_status",
     .help = "the right answer has that status in place of 101",
     .parameters = {number_of("code", 100, 599, "the status")}},
    {.kind = FaultKind::header,
     .family = Family::upgrade,
     .name = "header",
     .help = "a header of the right answer is not as it should be",
     .parameters = {word_of("how", kHeaderFaults, "what is done to it"), word_of("which", kHeaders, "the header")}},
    {.kind = FaultKind::large_headers,
     .family = Family::upgrade,
     .name = "large_headers",
     .help = "the right answer has that many bytes of other headers before its own",
     .parameters = {small_size_of("size", 16, "bytes", 64 << 10)}},
    {.kind = FaultKind::content_length,
     .family = Family::upgrade,
     .name = "content_length",
     .help = "the right answer has a Content-Length of that value, and no body",
     .parameters = {number_of("value", kInt32Min, kInt32Max, "the value")}},
    {.kind = FaultKind::no_http,
     .family = Family::upgrade,
     .name = "no_http",
     .help = "the upgrade is answered with bytes that are no HTTP answer",
     .parameters = {word_of("what", kNoHttp, "an SSH greeting, headers without a status line, or random bytes")}},
    {.kind = FaultKind::cut_answer,
     .family = Family::upgrade,
     .name = "cut_answer",
     .help = "the connection closes behind that many bytes of the answer",
     .parameters = {size_of("size", "bytes that are sent")},
     .stages = kAnswers},
    {.kind = FaultKind::early_frame,
     .family = Family::upgrade,
     .name = "early_frame",
     .help = "a frame follows in the segment of the upgrade's answer, before the module has registered",
     .parameters = {word_of("what", kEarlyFrames, "the frame; answer is the one that accepts a registration")}},
    {.kind = FaultKind::silence,
     .family = Family::upgrade,
     .name = "silence",
     .help = "the request is read and gets no answer",
     .stages = kAnswers},
    {.kind = FaultKind::hang_up,
     .family = Family::upgrade,
     .name = "hang_up",
     .help = "the request is answered by closing the connection",
     .stages = kAnswers},
    {.kind = FaultKind::ret_code,
     .family = Family::registration,
     .name = "ret_code",
     .help = "the answer has this retCode; 0 accepts",
     .parameters = {number_of("code", kInt32Min, kInt32Max, "the retCode")}},
    {.kind = FaultKind::opt_type,
     .family = Family::registration,
     .name = "opt_type",
     .help = "the answer has this optType; 1 is right",
     .parameters = {number_of("type", kInt32Min, kInt32Max, "the optType")}},
    {.kind = FaultKind::json,
     .family = Family::registration,
     .name = "json",
     .help = "the answer's JSON is not as it should be",
     .parameters = {word_of("how", kJson, "what it is"),
                    number_of("size", 1, 16 << 20, "levels of a deep one, bytes of a huge one", 4096)}},
    {.kind = FaultKind::answer_as,
     .family = Family::registration,
     .name = "answer_as",
     .help = "the answer comes in a frame of another kind",
     .parameters = {word_of("opcode", kAnswerOpcodes, "the frame's opcode")}},
    {.kind = FaultKind::twice,
     .family = Family::registration,
     .name = "twice",
     .help = "the answer comes more than once",
     .parameters = {number_of("times", 2, 100, "how often", 2)}},
    {.kind = FaultKind::late,
     .family = Family::registration,
     .name = "late",
     .help = "the answer comes that much later",
     .parameters = {time_of("time", "the delay")}},
    {.kind = FaultKind::reserved_bits,
     .family = Family::websocket,
     .name = "reserved_bits",
     .help = "every frame has these reserved bits",
     .parameters = {number_of("bits", 1, 7, "4 for RSV1, 2 for RSV2, 1 for RSV3, or their sum", 4)},
     .stages = kFrames},
    {.kind = FaultKind::opcode,
     .family = Family::websocket,
     .name = "opcode",
     .help = "every text and binary frame has this opcode",
     .parameters = {number_of("opcode", 0, 15, "the opcode")},
     .stages = kFrames},
    {.kind = FaultKind::masked,
     .family = Family::websocket,
     .name = "masked",
     .help = "every frame is masked",
     .stages = kFrames},
    {.kind = FaultKind::length_form,
     .family = Family::websocket,
     .name = "length_form",
     .help = "every frame has its length in at least so many bits, however short it is",
     .parameters = {word_of("bits", kLengthForms, "the bits")},
     .stages = kFrames},
    {.kind = FaultKind::fragments,
     .family = Family::websocket,
     .name = "fragments",
     .help = "every text and binary message comes in fragments, with control frames between them",
     .parameters = {size_of("size", "bytes of a fragment"), word_of("between", kBetween, "the control frames", 1)},
     .stages = kFrames},
    {.kind = FaultKind::oversize,
     .family = Family::websocket,
     .name = "oversize",
     .help = "a text frame announces that many bytes and brings none",
     .parameters = {number_of("bytes", -1, kInt64Max, "the announced length; -1 is 2^64 - 1", kInt64Max)},
     .stages = kFrames},
    {.kind = FaultKind::ping_flood,
     .family = Family::websocket,
     .name = "ping_flood",
     .help = "that many pings come at once",
     .parameters = {number_of("pings", 1, 100000, "how many", 1000)},
     .stages = kFrames},
    {.kind = FaultKind::close_frame,
     .family = Family::websocket,
     .name = "close_frame",
     .help = "a close comes unasked",
     .parameters = {number_of("status", 0, 65535, "its status", 1000),
                    word_of("body", kCloseBodies, "the whole body, none, or half a status", 0)},
     .stages = kFrames},
    {.kind = FaultKind::data_after_close,
     .family = Family::websocket,
     .name = "data_after_close",
     .help = "behind every close come that many texts",
     .parameters = {number_of("texts", 1, 1000, "how many", 1)},
     .stages = kFrames},
    {.kind = FaultKind::no_reply,
     .family = Family::daemon,
     .name = "no_reply",
     .help = "a module's registration with the daemon gets no answer, and no tunnel data either"},
    {.kind = FaultKind::cut_record,
     .family = Family::daemon,
     .name = "cut_record",
     .help = "the daemon hangs up behind that many bytes of a notification",
     .parameters = {number_of("bytes", 1, 707, "bytes that are sent", 100), time_of("pause", "before it hangs up", 0)}},
    {.kind = FaultKind::split_record,
     .family = Family::daemon,
     .name = "split_record",
     .help = "a notification comes in two parts",
     .parameters = {number_of("bytes", 1, 707, "bytes of the first", 100), time_of("pause", "before the second", 100)}},
    {.kind = FaultKind::merge_records,
     .family = Family::daemon,
     .name = "merge_records",
     .help = "the reply to a registration and the tunnel data come in one piece"},
    {.kind = FaultKind::record_type,
     .family = Family::daemon,
     .name = "record_type",
     .help = "notifications have this type",
     .parameters = {number_of("type", 0, 4294967295, "the type")}},
    {.kind = FaultKind::notice_type,
     .family = Family::daemon,
     .name = "notice_type",
     .help = "notifications have this sub-type",
     .parameters = {number_of("type", 0, 4294967295, "the sub-type")}},
    {.kind = FaultKind::repeat,
     .family = Family::daemon,
     .name = "repeat",
     .help = "tunnel data come again and again, changed each time where something is named",
     .parameters = {number_of("times", 1, 1000, "how often"), time_of("every", "the time between two", 500),
                    word_of("change", kChanges, "what is another each time", 0)}},
    {.kind = FaultKind::other_port,
     .family = Family::daemon,
     .name = "other_port",
     .help = "tunnel data name this port, on which the platform need not listen",
     .parameters = {number_of("port", 0, 65535, "the port")}},
    {.kind = FaultKind::other_host,
     .family = Family::daemon,
     .name = "other_host",
     .help = "tunnel data name this host",
     .parameters = {text_of("host", 127, "the host")}},
    {.kind = FaultKind::absence,
     .family = Family::daemon,
     .name = "absence",
     .help = "the daemon hangs up on a module that registers, and is away for the time",
     .parameters = {time_of("time", "until it is back")}},
};

constexpr bool kinds_in_order() {
    for (std::size_t i = 0; i < std::size(kRows); i++) {
        if (kRows[i].kind != static_cast<FaultKind>(i)) return false;
    }
    return true;
}
static_assert(kinds_in_order(), "row i is that of kind i");

}  // namespace

std::span<const FaultRow> fault_table() { return kRows; }

}  // namespace sim
