#include "fault.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>

#include "common/options.h"
#include "text.h"

namespace sim {
namespace {

// Where a fault applies and how often; every row takes those that make sense for it.
constexpr std::string_view kStageNames[] = {"accept", "tls", "upgrade", "registration", "open"};
constexpr std::string_view kDirectionNames[] = {"module", "platform"};

enum class Scope { model, at, direction, count, probability, seed };

struct ScopeRow {
    Scope scope;
    Parameter parameter;
    std::string_view argument;
};

constexpr std::size_t kModelMax = 32;

constexpr ScopeRow kScopes[] = {
    {Scope::model, {.name = "model", .help = "only the tunnels of this model; without it, all"}, "MODEL"},
    {Scope::at, {.name = "at", .unit = Unit::word, .help = "only in this stage: ", .choices = kStageNames}, "STAGE"},
    {Scope::direction,
     {.name = "to", .unit = Unit::word, .help = "only the bytes to that end: ", .choices = kDirectionNames},
     "END"},
    {Scope::count,
     {.name = "count", .min = 1, .max = 1000000, .help = "only the first N connections that meet it"},
     "N"},
    {Scope::probability,
     {.name = "probability", .unit = Unit::percent, .min = 1, .max = 100, .help = "only that share of the connections"},
     "N%"},
    {Scope::seed,
     {.name = "seed", .min = 0, .max = 4294967295, .help = "another choice of connections and of random delays"},
     "N"},
};

struct UnitSuffix {
    std::string_view suffix;
    double factor;
};

constexpr UnitSuffix kTimeSuffixes[] = {{"ms", 1}, {"s", 1000}, {"m", 60000}};
constexpr UnitSuffix kSizeSuffixes[] = {{"k", 1024}, {"M", 1024 * 1024}, {"", 1}};
constexpr UnitSuffix kPercentSuffixes[] = {{"%", 1}};
constexpr UnitSuffix kNoSuffix[] = {{"", 1}};

std::span<const UnitSuffix> suffixes_of(Unit unit) {
    switch (unit) {
        case Unit::time:
            return kTimeSuffixes;
        case Unit::size:
        case Unit::rate:
            return kSizeSuffixes;
        case Unit::percent:
            return kPercentSuffixes;
        case Unit::number:
        case Unit::word:
        case Unit::text:
            break;
    }
    return kNoSuffix;
}

const char *kind_of_value(Unit unit) {
    switch (unit) {
        case Unit::time:
            return "time";
        case Unit::size:
            return "size";
        case Unit::rate:
            return "size a second";
        case Unit::percent:
            return "share";
        case Unit::number:
        case Unit::word:
        case Unit::text:
            break;
    }
    return "number";
}

// in_unit reads a number with one of the unit's suffixes; nothing when it is anything else. A fraction is for times.
std::optional<double> in_unit(Unit unit, std::string_view text) {
    const std::string digits(text.substr(0, text.find_first_not_of("-.0123456789")));
    char *stop = nullptr;
    const double number = std::strtod(digits.c_str(), &stop);  // the device's C++ library has no from_chars for it
    if (stop == digits.c_str() || !std::isfinite(number)) return std::nullopt;
    const auto suffix = text.substr(static_cast<std::size_t>(stop - digits.c_str()));
    if (number == 0 && suffix.empty()) return 0;
    if (unit != Unit::time && number != std::floor(number)) return std::nullopt;
    for (const UnitSuffix &known : suffixes_of(unit)) {
        if (known.suffix == suffix) return number * known.factor;
    }
    return std::nullopt;
}

// show_value writes a value in the largest unit that shows it as a whole number.
std::string show_value(const Parameter &parameter, long value) {
    if (parameter.unit == Unit::word) return std::string(parameter.choices[static_cast<std::size_t>(value)]);
    if (value == 0 && parameter.unit != Unit::percent) return "0";
    const UnitSuffix *best = nullptr;
    for (const UnitSuffix &suffix : suffixes_of(parameter.unit)) {
        const auto factor = static_cast<long>(suffix.factor);
        if (value % factor == 0 && (!best || factor > static_cast<long>(best->factor))) best = &suffix;
    }
    return cat(value / static_cast<long>(best->factor), best->suffix);
}

std::string choices_of(const Parameter &parameter) {
    std::string out;
    for (const std::string_view choice : parameter.choices) out += cat(out.empty() ? "" : ", ", choice);
    return out;
}

long read_value(const Parameter &parameter, std::string_view text) {
    if (parameter.unit == Unit::word) {
        const auto found = std::find(parameter.choices.begin(), parameter.choices.end(), text);
        if (found == parameter.choices.end()) {
            throw BadInput(cat(parameter.name, " '", printable(text), "' is none of ", choices_of(parameter)));
        }
        return found - parameter.choices.begin();
    }
    if (parameter.unit == Unit::number) {
        const auto number = common::parse_number(text, parameter.min, parameter.max);
        if (number) return *number;
    }
    const auto value = parameter.unit == Unit::number ? std::nullopt : in_unit(parameter.unit, text);
    if (!value || *value < static_cast<double>(parameter.min) || *value > static_cast<double>(parameter.max)) {
        throw BadInput(cat(parameter.name, " '", printable(text), "' is no ", kind_of_value(parameter.unit), " from ",
                           value_range(parameter), way_to_write(parameter.unit)));
    }
    return std::lround(*value);
}

// The words of a line, each once. 'name=value' is one word.
std::vector<std::string_view> words_of(std::string_view line) {
    std::vector<std::string_view> out;
    while (!trim(line).empty()) out.push_back(first_word(line));
    return out;
}

// takes is true for the name of something that the fault takes.
bool takes(const FaultRow &row, std::string_view name) {
    const auto parameters = row.used_parameters();
    const auto has_name = [&](const Parameter &parameter) { return parameter.name == name; };
    return std::any_of(parameters.begin(), parameters.end(), has_name) ||
           std::any_of(std::begin(kScopes), std::end(kScopes),
                       [&](const ScopeRow &scope) { return has_name(scope.parameter); });
}

// is_pair is true for NAME=VALUE. An address with a '=' in its query is none: a name has small letters and '_' only.
bool is_pair(std::string_view word) {
    const auto in_name = [](char c) { return (c >= 'a' && c <= 'z') || c == '_'; };
    const auto equals = word.find('=');
    if (equals == std::string_view::npos) return false;
    return std::all_of(word.begin(), word.begin() + static_cast<std::ptrdiff_t>(equals), in_name);
}

class FaultReader {
  public:
    explicit FaultReader(std::string_view line) : words_(words_of(line)) {}

    Fault read() {
        if (words_.empty()) throw BadInput("no fault is named");
        fault_.row = &find_fault(words_[next_++]);
        while (next_ < words_.size()) read_word();
        const auto parameters = fault_.row->used_parameters();
        for (std::size_t i = 0; i < parameters.size(); i++) {
            if (given_[i]) continue;
            if (!parameters[i].initial) throw BadInput(cat(fault_.row->name, " needs ", arguments_of(*fault_.row)));
            fault_.values[i] = *parameters[i].initial;
        }
        return fault_;
    }

  private:
    // A word is NAME=VALUE, NAME before its VALUE, or the value of the next parameter that was not given.
    void read_word() {
        const std::string_view word = words_[next_++];
        if (is_pair(word)) {
            const auto equals = word.find('=');
            const std::string_view name = word.substr(0, equals);
            if (!takes(*fault_.row, name)) throw BadInput(cat(fault_.row->name, " takes no '", name, "'"));
            set(name, word.substr(equals + 1));
        } else if (takes(*fault_.row, word)) {
            if (next_ == words_.size()) throw BadInput(cat("'", word, "' has no value"));
            set(word, words_[next_++]);
        } else {
            set_next(word);
        }
    }

    void set_next(std::string_view value) {
        const auto parameters = fault_.row->used_parameters();
        for (std::size_t i = 0; i < parameters.size(); i++) {
            if (!given_[i]) return set(parameters[i].name, value);
        }
        throw BadInput(cat("'", printable(value), "' is too much: ", fault_.row->name, " takes ",
                           parameters.empty() ? "no parameter" : arguments_of(*fault_.row)));
    }

    void set(std::string_view name, std::string_view value) {
        const auto parameters = fault_.row->used_parameters();
        for (std::size_t i = 0; i < parameters.size(); i++) {
            if (parameters[i].name != name) continue;
            if (given_[i]) throw BadInput(cat("'", name, "' is given twice"));
            if (parameters[i].unit == Unit::text) {
                set_text(parameters[i], value);
            } else {
                fault_.values[i] = read_value(parameters[i], value);
            }
            given_[i] = true;
            return;
        }
        for (const ScopeRow &row : kScopes) {
            if (row.parameter.name == name) return set_scope(row, value);
        }
    }

    void set_text(const Parameter &parameter, std::string_view value) {
        const auto size = static_cast<long>(value.size());
        if (size < parameter.min || size > parameter.max) {
            throw BadInput(cat(parameter.name, " '", printable(value), "' has not ", parameter.min, " to ",
                               parameter.max, " bytes"));
        }
        fault_.text = value;
    }

    void set_scope(const ScopeRow &row, std::string_view value) {
        const Parameter &parameter = row.parameter;
        bool &given = scope_given_[static_cast<std::size_t>(row.scope)];
        if (given) throw BadInput(cat("'", parameter.name, "' is given twice"));
        given = true;
        switch (row.scope) {
            case Scope::model:
                if (value.empty() || value.size() > kModelMax) {
                    throw BadInput(cat("model '", printable(value), "' has not 1 to ", kModelMax, " bytes"));
                }
                fault_.model = value;
                break;
            case Scope::at:
                set_stage(static_cast<Stage>(read_value(parameter, value)));
                break;
            case Scope::direction:
                if (!fault_.row->directed) throw BadInput(cat(fault_.row->name, " has no direction"));
                fault_.direction = static_cast<Direction>(read_value(parameter, value));
                break;
            case Scope::count:
                fault_.count = read_value(parameter, value);
                break;
            case Scope::probability:
                fault_.probability = read_value(parameter, value);
                break;
            case Scope::seed:
                fault_.seed = read_value(parameter, value);
                break;
        }
    }

    void set_stage(Stage stage) {
        const FaultRow &row = *fault_.row;
        if (!row.staged()) throw BadInput(cat(row.name, " has its own place and takes no 'at'"));
        if (!row.stages[static_cast<std::size_t>(stage)]) {
            throw BadInput(cat(row.name, " is not for at=", stage_name(stage), ", only for ", stages_of(row)));
        }
        fault_.at = stage;
    }

    std::vector<std::string_view> words_;
    std::size_t next_ = 0;
    Fault fault_;
    std::array<bool, kParametersMax> given_ = {};
    std::array<bool, std::size(kScopes)> scope_given_ = {};
};

std::string upper_case(std::string_view name) {
    std::string out(name);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return out;
}

constexpr std::string_view argument_name(const Parameter &parameter) {
    switch (parameter.unit) {
        case Unit::time:
            return "TIME";
        case Unit::size:
            return "SIZE";
        case Unit::rate:
            return "RATE";
        case Unit::percent:
            return "N%";
        case Unit::number:
            return "N";
        case Unit::word:
            return "WORD";
        case Unit::text:
            return "TEXT";
    }
    return "";
}

}  // namespace

std::string_view Fault::word(std::size_t place) const {
    return row->parameters[place].choices[static_cast<std::size_t>(values[place])];
}

std::span<const Parameter> FaultRow::used_parameters() const {
    const auto *const end =
        std::find_if(parameters.begin(), parameters.end(), [](const Parameter &one) { return one.name.empty(); });
    return {parameters.begin(), end};
}

bool FaultRow::staged() const { return std::count(stages.begin(), stages.end(), true) > 0; }

const FaultRow &find_fault(std::string_view name) {
    const auto rows = fault_table();
    const auto found = std::find_if(rows.begin(), rows.end(), [&](const FaultRow &row) { return row.name == name; });
    if (found == rows.end()) throw BadInput(cat("no fault is called '", printable(name), "'; --help lists all"));
    return *found;
}

Fault parse_fault(std::string_view line) {
    try {
        return FaultReader(line).read();
    } catch (const BadInput &bad) {
        throw BadInput(cat("bad fault '", printable(trim(line)), "': ", bad.what()));
    }
}

std::string show_fault(const Fault &fault) {
    const FaultRow &row = *fault.row;
    const auto parameters = row.used_parameters();
    std::string out(row.name);
    for (std::size_t i = 0; i < parameters.size(); i++) {
        const Parameter &parameter = parameters[i];
        if (parameter.unit == Unit::text) {
            const bool as_name = is_pair(fault.text) || takes(row, fault.text);
            out += cat(" ", as_name ? cat(parameter.name, "=") : "", fault.text);
            continue;
        }
        if (parameter.initial == fault.values[i]) continue;
        out += parameter.initial ? cat(" ", parameter.name, " ", show_value(parameter, fault.values[i]))
                                 : cat(" ", show_value(parameter, fault.values[i]));
    }
    if (!fault.model.empty()) out += cat(" model=", printable(fault.model));
    if (fault.at) out += cat(" at=", stage_name(*fault.at));
    if (fault.direction) out += cat(" to=", kDirectionNames[static_cast<std::size_t>(*fault.direction)]);
    if (fault.count != 0) out += cat(" count=", fault.count);
    if (fault.probability != 100) out += cat(" probability=", fault.probability, "%");
    if (fault.seed != 1) out += cat(" seed=", fault.seed);
    return out;
}

const char *stage_name(Stage stage) { return kStageNames[static_cast<std::size_t>(stage)].data(); }

void check_transport(const Fault &fault, bool plain) {
    if (plain && fault.row->needs_tls()) {
        throw BadInput(cat("the fault '", fault.row->name, "' needs a platform with TLS, and --plain has none"));
    }
}

const char *family_name(Family family) {
    switch (family) {
        case Family::network:
            return "network";
        case Family::tls:
            return "TLS session";
        case Family::upgrade:
            return "upgrade";
        case Family::registration:
            return "registration";
        case Family::websocket:
            return "WebSocket frames";
        case Family::daemon:
            return "daemon";
    }
    return "";
}

std::string arguments_of(const FaultRow &row) {
    std::string out;
    for (const Parameter &parameter : row.used_parameters()) {
        if (!out.empty()) out += ' ';
        out += parameter.initial ? cat("[", parameter.name, " ", argument_name(parameter), "]")
                                 : upper_case(parameter.name);
    }
    return out;
}

std::string value_range(const Parameter &parameter) {
    if (parameter.unit == Unit::word) return choices_of(parameter);
    if (parameter.unit == Unit::text) return cat(parameter.min, " to ", parameter.max, " bytes");
    return cat(show_value(parameter, parameter.min), " to ", show_value(parameter, parameter.max));
}

const char *way_to_write(Unit unit) {
    switch (unit) {
        case Unit::time:
            return ", in ms, s or m";
        case Unit::size:
        case Unit::rate:
            return ", in bytes, k or M";
        case Unit::percent:
        case Unit::number:
        case Unit::word:
        case Unit::text:
            break;
    }
    return "";
}

std::string bounds_of(const FaultRow &row) {
    std::string out;
    const auto add = [&](const std::string &what) { out += cat(out.empty() ? "" : "; ", what); };
    for (const Parameter &parameter : row.used_parameters()) {
        const std::string initial = parameter.initial ? cat(" (", show_value(parameter, *parameter.initial), ")") : "";
        add(cat(parameter.name, ", ", parameter.help, ": ", value_range(parameter), initial));
    }
    const bool everywhere = std::count(row.stages.begin(), row.stages.end(), false) == 0;
    if (row.staged()) add(cat("at: ", everywhere ? "every stage" : stages_of(row)));
    if (row.directed) add("takes to=");
    return out;
}

std::string stages_of(const FaultRow &row) {
    std::string out;
    for (std::size_t i = 0; i < row.stages.size(); i++) {
        if (row.stages[i]) out += cat(out.empty() ? "" : ", ", kStageNames[i]);
    }
    return out;
}

std::string fault_help() {
    std::string out;
    std::optional<Family> family;
    for (const FaultRow &row : fault_table()) {
        if (family != row.family) out += cat(family ? "\n" : "", "Of the ", family_name(row.family), ":\n");
        family = row.family;
        out += common::help_row(row.name, arguments_of(row), row.help);
        if (const std::string bounds = bounds_of(row); !bounds.empty()) out += common::help_row("", "", bounds);
    }
    out += "\nEach fault also takes:\n";
    for (const ScopeRow &row : kScopes) {
        out += common::help_row(cat(row.parameter.name, "=", row.argument), "",
                                cat(row.parameter.help, choices_of(row.parameter)));
    }
    return out;
}

}  // namespace sim
