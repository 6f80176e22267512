#include "registration_fault.h"

#include "text.h"

namespace sim {
namespace {

// json-c reads this many levels, the answer's own object among them.
constexpr long kLevelsMax = 31;

struct Fields {
    long opt_type = 1;
    long ret_code = 0;
};

std::string answer_of(const Fields &fields) {
    return cat(R"({"optType":)", fields.opt_type, R"(,"retCode":)", fields.ret_code, "}");
}

// The library compares 8 bits of the type.
bool accepts(const Fields &fields) { return fields.ret_code == 0 && (fields.opt_type & 0xff) == 1; }

// with_member adds one more member to the answer.
std::string with_member(const Fields &fields, const std::string &value) {
    std::string out = answer_of(fields);
    out.pop_back();
    return cat(out, R"(,"more":)", value, "}");
}

RegistrationReply spoilt(const Fields &fields, std::string_view how, long size) {
    const std::string right = answer_of(fields);
    const auto count = static_cast<std::size_t>(size);
    const auto refused = [](std::string body) { return RegistrationReply{.body = std::move(body)}; };
    const auto accepted = [&](std::string body) {
        return RegistrationReply{.body = std::move(body), .accepted = accepts(fields)};
    };
    if (how == "cut") return refused(right.substr(0, right.size() - 1));
    if (how == "text") return refused("accepted");
    if (how == "empty") return refused("");
    if (how == "array") return refused(cat("[", right, "]"));
    if (how == "no-type") return refused(cat(R"({"retCode":)", fields.ret_code, "}"));
    if (how == "no-code") return refused(cat(R"({"optType":)", fields.opt_type, "}"));
    if (how == "strings")
        return accepted(cat(R"({"optType":")", fields.opt_type, R"(","retCode":")", fields.ret_code, R"("})"));
    if (how == "objects") return refused(R"({"optType":{},"retCode":{}})");
    if (how == "nul") return refused(std::string("{\0", 2) + right.substr(1));
    if (how == "binary") return refused("\x80\xff\xfe{\xc0\x80}");
    if (how == "doubled") {
        const std::string other = answer_of({.opt_type = 2, .ret_code = 7});
        return accepted(cat(other.substr(0, other.size() - 1), ",", right.substr(1)));
    }
    if (how == "deep") {
        RegistrationReply out = accepted(with_member(fields, std::string(count, '[') + std::string(count, ']')));
        if (size > kLevelsMax) out.accepted = false;
        return out;
    }
    return accepted(with_member(fields, cat("\"", std::string(count, 'h'), "\"")));
}

Opcode opcode_of(std::string_view name) {
    if (name == "binary") return Opcode::binary;
    if (name == "ping") return Opcode::ping;
    if (name == "pong") return Opcode::pong;
    if (name == "close") return Opcode::close;
    return Opcode::continuation;
}

}  // namespace

RegistrationReply registration_reply(ConnectionFaults &faults, bool refused) {
    const auto find = [&](FaultKind kind) { return faults.find(kind, Stage::registration); };
    Fields fields;
    if (const auto *type = find(FaultKind::opt_type)) fields.opt_type = type->fault.values[0];
    if (const auto *code = find(FaultKind::ret_code)) fields.ret_code = code->fault.values[0];
    if (refused) fields.ret_code = 1;

    RegistrationReply out{.body = answer_of(fields), .accepted = accepts(fields)};
    if (const auto *json = find(FaultKind::json)) {
        out = spoilt(fields, json->fault.word(0), json->fault.values[1]);
    }
    if (const auto *as = find(FaultKind::answer_as)) {
        out.opcode = opcode_of(as->fault.word(0));
        out.accepted = false;
    }
    if (const auto *cut = find(FaultKind::cut_answer)) {
        out.cut = static_cast<std::size_t>(cut->fault.values[0]);
        out.accepted = false;
    }
    return out;
}

}  // namespace sim
