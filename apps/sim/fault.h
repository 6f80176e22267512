// The faults that the simulator injects, in one table: what each is called, what it takes, where it applies and what it
// does. The option --fault, the step 'fault', the help texts, the pages and the tests read it.
//
// A fault is one line of words: its name, its parameters, and where and how often it applies.
//   latency 200ms jitter 50ms model=base at=upgrade to=module count=2 probability=50% seed=7
// A parameter stands behind its name, or without it in the table's order: 'latency 200ms 50ms' is the same.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// The stages of a connection, in their order.
enum class Stage { accept, tls, upgrade, registration, open };

// The two directions of a connection's bytes.
enum class Direction { to_module, to_platform };

enum class Family { network, tls, upgrade, registration, websocket, daemon };

// clang-format off
enum class FaultKind {
    latency, jitter, bandwidth, slicer, limit_data, timeout, reset_peer, slow_close, half_close,
    tls_version, tls_alert, tls_garbage, certificate, rekey, no_close_notify,
    status, redirect, retry_after, informational, other_status, header, large_headers, content_length, no_http, cut_answer,
    early_frame, silence, hang_up,
    ret_code, opt_type, json, answer_as, twice, late,
    reserved_bits, opcode, masked, length_form, fragments, oversize, ping_flood, close_frame, data_after_close,
    no_reply, cut_record, split_record, merge_records, record_type, notice_type, repeat, other_port, other_host, absence,
};
// clang-format on

// How a parameter's value is written, and in what it is kept.
enum class Unit {
    number,
    time,     // kept in milliseconds: 200ms, 1.5s, 2m
    size,     // kept in bytes: 100, 64k, 1M
    rate,     // kept in bytes a second, written as a size
    percent,  // 30%
    word,     // one of the choices; kept as its place among them
    text,     // any word; kept in the fault's text
};

struct Parameter {
    std::string_view name;
    Unit unit = Unit::number;
    long min = 0;
    long max = 0;
    std::optional<long> initial = {};  // none: the parameter must be given
    std::string_view help = {};
    std::span<const std::string_view> choices = {};
};

constexpr std::size_t kParametersMax = 3;

struct FaultRow {
    FaultKind kind;
    Family family;
    std::string_view name;
    std::string_view help;
    std::array<Parameter, kParametersMax> parameters = {};  // those behind the last have no name
    std::array<bool, 5> stages = {};                        // where it can apply, by Stage; none: in one place only
    bool directed = false;                                  // it takes to=

    [[nodiscard]] std::span<const Parameter> used_parameters() const;
    [[nodiscard]] bool staged() const;
    [[nodiscard]] bool needs_tls() const { return family == Family::tls; }
};

std::span<const FaultRow> fault_table();

// One fault as it was asked for.
struct Fault {
    const FaultRow *row = nullptr;
    std::array<long, kParametersMax> values = {};
    std::string text;                    // of the one parameter that is a text
    std::string model;                   // empty: all
    std::optional<Stage> at;             // none: in every stage
    std::optional<Direction> direction;  // none: both
    long count = 0;                      // connections that it applies to; 0: any number
    long probability = 100;              // of every hundred connections
    long seed = 1;

    [[nodiscard]] FaultKind kind() const { return row->kind; }

    // word is the value of the parameter at that place, one of its choices.
    [[nodiscard]] std::string_view word(std::size_t place) const;
};

// parse_fault reads one line. Throws BadInput, whose text names the word and what is wrong with it.
Fault parse_fault(std::string_view line);

// show_fault writes the line that parse_fault reads as the same fault, without what is as in a fresh one.
std::string show_fault(const Fault &fault);

// find_fault finds the row of that name. Throws BadInput.
const FaultRow &find_fault(std::string_view name);

const char *stage_name(Stage stage);
const char *family_name(Family family);

// arguments_of shows what a fault takes: "TIME [jitter TIME]". value_range shows what a parameter may be: "1 to 64M".
// way_to_write shows how a value with that unit is written, as the end of a sentence: ", in ms, s or m".
std::string arguments_of(const FaultRow &row);
std::string value_range(const Parameter &parameter);
const char *way_to_write(Unit unit);

// stages_of lists where it applies: "tls, upgrade, registration, open".
std::string stages_of(const FaultRow &row);

// bounds_of says what its parameters may be, their values when they are left out, and where it applies.
std::string bounds_of(const FaultRow &row);

// check_transport throws BadInput for a fault that a plain platform has no place for.
void check_transport(const Fault &fault, bool plain);

// fault_help explains all faults, one a line, and what every fault takes besides its own parameters.
std::string fault_help();

}  // namespace sim
