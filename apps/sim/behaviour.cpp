#include "behaviour.h"

#include <algorithm>
#include <span>

#include "text.h"

namespace sim {
namespace {

template <class T>
struct Choice {
    std::string_view name;
    T value;
};

constexpr Choice<UpgradeAnswer> kUpgrades[] = {
    {"accept", UpgradeAnswer::accept},
    {"wrong-accept", UpgradeAnswer::wrong_accept},
    {"silence", UpgradeAnswer::silence},
    {"close", UpgradeAnswer::close},
};

constexpr Choice<RegistrationAnswer> kRegistrations[] = {
    {"text", RegistrationAnswer::text},           {"binary", RegistrationAnswer::binary},
    {"malformed", RegistrationAnswer::malformed}, {"silence", RegistrationAnswer::silence},
    {"close", RegistrationAnswer::close},
};

constexpr Choice<bool> kOnOff[] = {{"on", true}, {"off", false}};

constexpr long kInt32Min = -2147483648L;
constexpr long kInt32Max = 2147483647L;

template <class T>
std::string names_of(std::span<const Choice<T>> choices) {
    std::string names;
    for (const Choice<T> &choice : choices) names += cat(names.empty() ? "" : ", ", choice.name);
    return names;
}

template <class T, std::size_t N>
common::Setter set_choice(T &field, const Choice<T> (&choices)[N]) {
    return [&field, known = std::span<const Choice<T>>(choices)](std::string_view name) {
        const auto found = std::ranges::find(known, name, &Choice<T>::name);
        if (found == known.end()) throw BadInput(cat("'", printable(name), "' is none of ", names_of(known)));
        field = found->value;
    };
}

}  // namespace

std::vector<common::Option> behaviour_options(Behaviour &behaviour) {
    using common::set_number;
    return {
        {"upgrade", "HOW", "accept", "answer upgrades by: accept, wrong-accept, silence, close",
         set_choice(behaviour.upgrade, kUpgrades)},
        {"answer-status", "N", "101", "answer upgrades with this HTTP status",
         set_number(behaviour.answer_status, 100, 599)},
        {"opt1", "HOW", "text", "answer registrations by: text, binary, malformed, silence, close",
         set_choice(behaviour.registration, kRegistrations)},
        {"ret-code", "N", "0", "retCode in that answer; 0 accepts",
         set_number(behaviour.ret_code, kInt32Min, kInt32Max)},
        {"opt-type", "N", "1", "optType in that answer; 1 is right",
         set_number(behaviour.opt_type, kInt32Min, kInt32Max)},
        {"lenient", kOnOrOff, "off", "report a wrong upgrade request or registration, and go on",
         set_choice(behaviour.lenient, kOnOff)},
        {"mask", kOnOrOff, "off", "mask the platform's own frames", set_choice(behaviour.mask, kOnOff)},
        {"any-answer", kOnOrOff, "off", "take any next message as the answer to a request",
         set_choice(behaviour.any_answer, kOnOff)},
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
