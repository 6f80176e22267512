// The reader that counts: traffic by tunnel, and set-ups and ends by model.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "event_stream.h"

namespace sim {

// One direction of a tunnel. A message counts with its last frame; bytes are those of payloads.
struct Traffic {
    std::uint64_t messages = 0;
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
};

struct TunnelCount {
    Traffic received;
    Traffic sent;
    bool opened = false;  // its registration was accepted
};

struct ModelCount {
    std::uint64_t opened = 0;  // tunnels whose registration was accepted
    std::uint64_t failed = 0;  // tunnels that ended before that
    std::uint64_t ended = 0;   // tunnels that ended after it
    std::string last_cause;    // of the newest end; empty: none has ended
};

class Counters {
  public:
    explicit Counters(EventStream &events);

    // tunnel is the count of a tunnel that has not ended; zeros for any other number.
    [[nodiscard]] TunnelCount tunnel(int id) const;

    // models has an entry for each model that had a tunnel; an empty name is for tunnels that ended before they named
    // theirs.
    [[nodiscard]] const std::map<std::string, ModelCount> &models() const { return models_; }

  private:
    void read(const Event &event);

    std::map<int, TunnelCount> tunnels_;
    std::map<std::string, ModelCount> models_;
    Subscription subscription_;
};

}  // namespace sim
