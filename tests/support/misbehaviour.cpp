#include "tests/support/misbehaviour.h"

#include <span>
#include <stdexcept>

#include "apps/sim/registration_fault.h"
#include "apps/sim/upgrade_fault.h"
#include "tests/support/quiet.h"

namespace support {
namespace {

using sim::FaultKind;
using sim::Stage;

struct Named {
    const char *name;
    const char *fault;
};

constexpr Named kUpgrades[] = {
    {"status_200", "other_status 200"},
    {"status_500", "other_status 500"},
    {"status_404_with_accept", "other_status 404"},
    {"status_404", "status 404 body 4"},
    {"status_chunked", "status 404 body 4 by chunks"},
    {"no_status", "no_http no-status"},
    {"no_http", "no_http ssh"},
    {"no_accept", "header missing accept"},
    {"bad_accept", "header wrong accept"},
    {"negative_length", "content_length -1"},
    {"half_an_upgrade", "cut_answer 17 at=upgrade"},
    {"end_of_upgrade", "hang_up at=upgrade"},
    {"reset_of_upgrade", "reset_peer at=upgrade"},
    {"silent_upgrade", "silence at=upgrade"},
};

constexpr Named kRegistrations[] = {
    {"return_code", "ret_code 7"},
    {"no_return_code", "json no-code"},
    {"other_type", "opt_type 2"},
    {"no_type", "json no-type"},
    {"no_json", "json text"},
    {"half_json", "json cut"},
    {"empty_answer", "json empty"},
    {"binary_answer", "answer_as binary"},
    {"ping_for_answer", "answer_as ping"},
    {"close_for_answer", "answer_as close"},
    {"frame_too_long", "oversize -1 at=registration"},
    {"half_a_registration", "cut_answer 10 at=registration"},
    {"end_of_registration", "hang_up at=registration"},
    {"reset_of_registration", "reset_peer at=registration"},
    {"silent_registration", "silence at=registration"},
};

std::vector<Misbehaviour> table(Stage stage, std::span<const Named> rows) {
    const Quiet quiet;
    std::vector<Misbehaviour> out;
    for (const Named &row : rows) out.push_back({row.name, sim::parse_fault(row.fault), stage});
    return out;
}

struct Reply {
    enum class Then { stay, close, reset };
    std::string bytes = {};
    Then then = Then::stay;
};
using Then = Reply::Then;

Reply upgrade_reply(sim::ConnectionFaults &faults, const std::string &key) {
    const sim::UpgradeRequest request = {.line = {}, .headers = {{"Sec-WebSocket-Key", key}}};
    sim::UpgradeReply reply = sim::upgrade_reply(faults, request, false);
    const bool closes = reply.next == sim::UpgradeReply::Next::closes;
    return {std::move(reply.bytes), closes ? Then::close : Then::stay};
}

Reply registration_reply(sim::ConnectionFaults &faults) {
    sim::RegistrationReply reply = sim::registration_reply(faults, false);
    std::string bytes = sim::encode_frame({.opcode = reply.opcode, .payload = std::move(reply.body)});
    if (!reply.cut) return {std::move(bytes)};
    return {bytes.substr(0, *reply.cut), Then::close};
}

Reply reply_of(const Misbehaviour &one, const std::string &key) {
    if (one.fault.kind() == FaultKind::silence) return {};
    if (one.fault.kind() == FaultKind::hang_up) return {{}, Then::close};
    if (one.fault.kind() == FaultKind::reset_peer) return {{}, Then::reset};
    if (one.fault.kind() == FaultKind::oversize)
        return {sim::announce_frame(static_cast<std::uint64_t>(one.fault.values[0]))};
    sim::FaultSet on;
    on.add(one.fault);
    sim::ConnectionFaults faults(on, 1, "", [](const sim::Fault &) {});
    return one.stage == Stage::upgrade ? upgrade_reply(faults, key) : registration_reply(faults);
}

}  // namespace

bool Misbehaviour::answers() const {
    const Quiet quiet;
    const Reply reply = reply_of(*this, "");
    return !reply.bytes.empty() && reply.then == Then::stay;
}

const std::vector<Misbehaviour> &wrong_upgrades() {
    static const std::vector<Misbehaviour> all = table(Stage::upgrade, kUpgrades);
    return all;
}

const std::vector<Misbehaviour> &wrong_registrations() {
    static const std::vector<Misbehaviour> all = table(Stage::registration, kRegistrations);
    return all;
}

const Misbehaviour &misbehaviour(std::string_view name) {
    for (const auto *const kind : {&wrong_upgrades(), &wrong_registrations()}) {
        for (const Misbehaviour &one : *kind) {
            if (one.name == name) return one;
        }
    }
    throw std::runtime_error("no misbehaviour is called " + std::string(name));
}

void misbehave(Server &server, const Misbehaviour &misbehaviour, const std::string &key) {
    const Quiet quiet;
    const Reply reply = reply_of(misbehaviour, key);
    if (!reply.bytes.empty()) server.send(reply.bytes);
    if (reply.then == Then::close) server.close();
    if (reply.then == Then::reset) server.reset();
}

}  // namespace support
