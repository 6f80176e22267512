#include "behaviour.h"

#include <algorithm>
#include <span>

#include "text.h"

namespace sim {
namespace {

// A value of a behaviour, and the fault that it is; the usual value is none.
struct Choice {
    std::string_view name;
    std::string_view fault;
};

constexpr Choice kUpgrades[] = {
    {"accept", ""},
    {"wrong-accept", "header wrong accept"},
    {"silence", "silence at=upgrade"},
    {"close", "hang_up at=upgrade"},
};

constexpr Choice kRegistrations[] = {
    {"text", ""},
    {"binary", "answer_as binary"},
    {"malformed", "json cut"},
    {"silence", "silence at=registration"},
    {"close", "hang_up at=registration"},
};

constexpr Choice kMask[] = {{"on", "masked"}, {"off", ""}};

constexpr long kInt32Min = -2147483648L;
constexpr long kInt32Max = 2147483647L;

void use_fault(Behaviour &behaviour, const char *name, const std::string &fault) {
    behaviour.faults.erase(name);
    if (!fault.empty()) behaviour.faults.emplace(name, parse_fault(fault));
}

common::Setter set_choice(Behaviour &behaviour, const char *name, std::span<const Choice> known) {
    return [&behaviour, name, known](std::string_view value) {
        const auto found = std::ranges::find(known, value, &Choice::name);
        if (found == known.end()) {
            std::string names;
            for (const Choice &choice : known) names += cat(names.empty() ? "" : ", ", choice.name);
            throw BadInput(cat("'", printable(value), "' is none of ", names));
        }
        use_fault(behaviour, name, std::string(found->fault));
    };
}

// A number that a fault takes; the usual one is no fault.
common::Setter set_number_of(Behaviour &behaviour, const char *name, const char *fault, long min, long max,
                             long usual) {
    return [=, &behaviour](std::string_view value) {
        const long number = common::read_number(value, min, max);
        use_fault(behaviour, name, number == usual ? "" : cat(fault, " ", number));
    };
}

common::Setter set_switch(bool &field) {
    return [&field](std::string_view value) {
        if (value != "on" && value != "off") throw BadInput(cat("'", printable(value), "' is none of on, off"));
        field = value == "on";
    };
}

}  // namespace

std::vector<common::Option> behaviour_options(Behaviour &behaviour) {
    return {
        {"upgrade", "HOW", "accept", "answer upgrades by: accept, wrong-accept, silence, close",
         set_choice(behaviour, "upgrade", kUpgrades)},
        {"answer-status", "N", "101", "answer upgrades with this HTTP status",
         set_number_of(behaviour, "answer-status", "status", 100, 599, 101)},
        {"opt1", "HOW", "text", "answer registrations by: text, binary, malformed, silence, close",
         set_choice(behaviour, "opt1", kRegistrations)},
        {"ret-code", "N", "0", "retCode in that answer; 0 accepts",
         set_number_of(behaviour, "ret-code", "ret_code", kInt32Min, kInt32Max, 0)},
        {"opt-type", "N", "1", "optType in that answer; 1 is right",
         set_number_of(behaviour, "opt-type", "opt_type", kInt32Min, kInt32Max, 1)},
        {"lenient", kOnOrOff, "off", "report a wrong upgrade request or registration, and go on",
         set_switch(behaviour.lenient)},
        {"mask", kOnOrOff, "off", "mask the platform's own frames", set_choice(behaviour, "mask", kMask)},
        {"any-answer", kOnOrOff, "off", "take any next message as the answer to a request",
         set_switch(behaviour.any_answer)},
    };
}

void set_behaviour(Behaviour &behaviour, std::string_view name, std::string_view value) {
    const auto table = behaviour_options(behaviour);
    const auto found = std::ranges::find(table, name, &common::Option::name);
    if (found == table.end()) throw BadInput(cat("no behaviour is called '", printable(name), "'"));
    found->set(value);
}

std::string behaviour_names() {
    Behaviour any;
    std::string names;
    for (const common::Option &option : behaviour_options(any)) names += cat(names.empty() ? "" : ", ", option.name);
    return names;
}

}  // namespace sim
