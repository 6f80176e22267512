// The faults that are switched on, and which of them a connection meets.
//
// Whether a connection meets a fault is decided once, when the fault could first apply to it, and depends on nothing
// but the fault's seed and the connection's number: a run that is repeated meets the same faults.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "fault.h"

namespace sim {

class FaultSet {
  public:
    struct Active {
        Fault fault;
        int number = 0;  // each fault that is switched on has its own
        bool held = false;
        long applied = 0;  // connections that have met it
    };

    // add switches a fault on. One of the same name, model, stage and direction gives way to it.
    void add(const Fault &fault);

    // off switches off the faults of that name, all of them for an empty one; false when there was none.
    bool off(std::string_view name);

    // hold puts these behind what is switched on, in place of those held before; off leaves them alone. The others come
    // before them.
    void hold(const std::vector<Fault> &faults);

    // active lists what is switched on, the newest first, and then what is held.
    [[nodiscard]] const std::vector<std::shared_ptr<Active>> &active() const { return active_; }

  private:
    std::vector<std::shared_ptr<Active>> active_;
    int last_number_ = 0;
};

class ConnectionFaults {
  public:
    // Called once for each fault that the connection meets.
    using Applied = std::function<void(const Fault &)>;

    // `id` is the connection's number and `model` the model it is known to be of, or empty. `all` outlives it.
    ConnectionFaults(const FaultSet &all, int id, std::string model, Applied applied);

    void set_model(const std::string &model) { model_ = model; }

    // find is the newest fault of that kind that the connection meets in that stage, or null. The second form is for
    // the kinds that have a direction.
    const FaultSet::Active *find(FaultKind kind, Stage stage);
    const FaultSet::Active *find(FaultKind kind, Stage stage, Direction direction);

    // find_at is the same as the first, for faults that name the stage.
    const FaultSet::Active *find_at(FaultKind kind, Stage stage);

    // none is true as long as nothing is switched on.
    [[nodiscard]] bool none() const { return all_.active().empty(); }

    // random is a number from 0 to `most`, from the fault's seed.
    long random(const FaultSet::Active &active, long most);

  private:
    template <class Here>
    const FaultSet::Active *find_where(FaultKind kind, Here here);
    bool meets(FaultSet::Active &active);

    const FaultSet &all_;
    std::uint64_t id_;
    std::string model_;
    Applied applied_;
    std::map<int, bool> met_;  // by the fault's number
    std::map<int, std::mt19937> generators_;
};

}  // namespace sim
