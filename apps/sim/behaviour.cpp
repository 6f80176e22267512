#include "behaviour.h"

#include <optional>
#include <utility>

#include "text.h"

namespace sim {
namespace {

template <class T>
using Names = std::pair<std::string_view, T>;

constexpr Names<UpgradeAnswer> kUpgrades[] = {
    {"accept", UpgradeAnswer::accept},
    {"wrong-accept", UpgradeAnswer::wrong_accept},
    {"silence", UpgradeAnswer::silence},
    {"close", UpgradeAnswer::close},
};

constexpr Names<RegistrationAnswer> kRegistrations[] = {
    {"text", RegistrationAnswer::text},           {"binary", RegistrationAnswer::binary},
    {"malformed", RegistrationAnswer::malformed}, {"silence", RegistrationAnswer::silence},
    {"close", RegistrationAnswer::close},
};

constexpr Names<bool> kSwitch[] = {{"on", true}, {"off", false}};

template <class T, std::size_t N>
std::string choose(T &field, const Names<T> (&names)[N], std::string_view value) {
    std::string known;
    for (const auto &[name, choice] : names) {
        if (name == value) {
            field = choice;
            return {};
        }
        known += cat(known.empty() ? "" : ", ", name);
    }
    return cat("'", value, "' is none of ", known);
}

std::string count(int &field, std::string_view value, long min, long max) {
    const auto read = number(value, min, max);
    if (!read) return cat("'", value, "' is not a number from ", min, " to ", max);
    field = static_cast<int>(*read);
    return {};
}

}  // namespace

std::string set_behaviour(Behaviour &behaviour, std::string_view name, std::string_view value) {
    if (name == "upgrade") return choose(behaviour.upgrade, kUpgrades, value);
    if (name == "answer-status") return count(behaviour.answer_status, value, 100, 599);
    if (name == "opt1") return choose(behaviour.registration, kRegistrations, value);
    if (name == "ret-code") return count(behaviour.ret_code, value, -2147483648L, 2147483647L);
    if (name == "opt-type") return count(behaviour.opt_type, value, -2147483648L, 2147483647L);
    if (name == "lenient") return choose(behaviour.lenient, kSwitch, value);
    if (name == "mask") return choose(behaviour.mask, kSwitch, value);
    if (name == "any-answer") return choose(behaviour.any_answer, kSwitch, value);
    return cat("no behaviour is called '", name, "'");
}

}  // namespace sim
