#include "fault_set.h"

#include <algorithm>

namespace sim {
namespace {

// One step of splitmix64: neighbouring seeds and numbers give values that have nothing in common.
std::uint64_t mix(std::uint64_t value) {
    value += 0x9e3779b97f4a7c15;
    value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9;
    value = (value ^ value >> 27) * 0x94d049bb133111eb;
    return value ^ value >> 31;
}

std::uint64_t mix(long seed, std::uint64_t id) { return mix(mix(static_cast<std::uint64_t>(seed)) + id); }

bool same_place(const Fault &a, const Fault &b) {
    return a.kind() == b.kind() && a.model == b.model && a.at == b.at && a.direction == b.direction;
}

}  // namespace

void FaultSet::add(const Fault &fault) {
    std::erase_if(active_, [&](const auto &one) { return !one->held && same_place(one->fault, fault); });
    active_.insert(active_.begin(), std::make_shared<Active>(Active{.fault = fault, .number = ++last_number_}));
}

bool FaultSet::off(std::string_view name) {
    return std::erase_if(active_, [&](const auto &one) {
               return !one->held && (name.empty() || one->fault.row->name == name);
           }) > 0;
}

void FaultSet::hold(const std::vector<Fault> &faults) {
    std::erase_if(active_, [](const auto &one) { return one->held; });
    for (const Fault &fault : faults) {
        active_.push_back(std::make_shared<Active>(Active{.fault = fault, .number = ++last_number_, .held = true}));
    }
}

ConnectionFaults::ConnectionFaults(const FaultSet &all, int id, std::string model, Applied applied)
    : all_(all), id_(static_cast<std::uint64_t>(id)), model_(std::move(model)), applied_(std::move(applied)) {}

template <class Here>
const FaultSet::Active *ConnectionFaults::find_where(FaultKind kind, Here here) {
    for (const auto &active : all_.active()) {
        if (active->fault.kind() == kind && here(active->fault) && meets(*active)) return active.get();
    }
    return nullptr;
}

const FaultSet::Active *ConnectionFaults::find(FaultKind kind, Stage stage) {
    return find_where(kind, [&](const Fault &fault) { return fault.at.value_or(stage) == stage; });
}

const FaultSet::Active *ConnectionFaults::find(FaultKind kind, Stage stage, Direction direction) {
    return find_where(kind, [&](const Fault &fault) {
        return fault.at.value_or(stage) == stage && fault.direction.value_or(direction) == direction;
    });
}

const FaultSet::Active *ConnectionFaults::find_at(FaultKind kind, Stage stage) {
    return find_where(kind, [&](const Fault &fault) { return fault.at == stage; });
}

bool ConnectionFaults::meets(FaultSet::Active &active) {
    const Fault &fault = active.fault;
    if (!fault.model.empty() && fault.model != model_) return false;
    const auto [known, fresh] = met_.try_emplace(active.number, false);
    if (!fresh) return known->second;
    if (fault.count != 0 && active.applied >= fault.count) return false;
    if (static_cast<long>(mix(fault.seed, id_) % 100) >= fault.probability) return false;
    active.applied++;
    known->second = true;
    applied_(fault);
    return true;
}

long ConnectionFaults::random(const FaultSet::Active &active, long most) {
    const auto [generator, fresh] =
        generators_.try_emplace(active.number, static_cast<std::mt19937::result_type>(mix(active.fault.seed, id_)));
    return static_cast<long>(generator->second() % (static_cast<std::uint64_t>(most) + 1));
}

}  // namespace sim
