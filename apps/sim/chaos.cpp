#include "chaos.h"

#include <algorithm>
#include <random>

#include "fault.h"
#include "text.h"

namespace sim {
namespace {

constexpr int kFaults = 20;
constexpr long kOnMin = 500, kOnMax = 3000;  // milliseconds that a fault stays on
constexpr long kOff = 500;                   // for the tunnels to come back

// What a drawn value may be at most, below what the table allows: a fault shall show within its time.
constexpr long kTimeMax = 2000;
constexpr long kSizeMax = 4096;
constexpr long kNumberMax = 1000;

class Draw {
  public:
    explicit Draw(long seed) : generator_(static_cast<std::mt19937_64::result_type>(seed)) {}

    // number draws one from `min` to `max`. The library's distributions differ between compilers, and this does not.
    long number(long min, long max) {
        const auto values = static_cast<std::uint64_t>(max) - static_cast<std::uint64_t>(min) + 1;
        const std::uint64_t drawn = generator_();
        return static_cast<long>(static_cast<std::uint64_t>(min) + (values == 0 ? drawn : drawn % values));
    }

    std::string value(const Parameter &parameter) {
        switch (parameter.unit) {
            case Unit::time:
                return cat(number(parameter.min, std::min(parameter.max, kTimeMax)), "ms");
            case Unit::size:
            case Unit::rate:
                return cat(number(parameter.min, std::min(parameter.max, kSizeMax)));
            case Unit::percent:
                return cat(number(parameter.min, parameter.max), "%");
            case Unit::number:
                return cat(number(parameter.min, std::min(parameter.max, std::max(parameter.min, 0L) + kNumberMax)));
            case Unit::word:
                return std::string(parameter.choices[place(parameter.choices.size())]);
            case Unit::text:
                break;
        }
        return "elsewhere.example";
    }

    std::string fault() {
        const auto table = fault_table();
        const FaultRow &row = table[place(table.size())];
        std::string out(row.name);
        for (const Parameter &parameter : row.used_parameters()) out += cat(" ", parameter.name, "=", value(parameter));
        std::vector<Stage> stages;
        for (std::size_t i = 0; i < row.stages.size(); i++) {
            if (row.stages[i]) stages.push_back(static_cast<Stage>(i));
        }
        if (!stages.empty()) out += cat(" at=", stage_name(stages[place(stages.size())]));
        return show_fault(parse_fault(out));
    }

  private:
    std::size_t place(std::size_t count) { return static_cast<std::size_t>(number(0, static_cast<long>(count) - 1)); }

    std::mt19937_64 generator_;
};

}  // namespace

std::vector<std::string> chaos_steps(long seed) {
    Draw draw(seed);
    std::vector<std::string> out;
    for (int i = 0; i < kFaults; i++) {
        out.push_back(cat("fault ", draw.fault()));
        out.push_back(cat("sleep ", draw.number(kOnMin, kOnMax)));
        out.emplace_back("fault off");
        out.push_back(cat("sleep ", kOff));
    }
    return out;
}

}  // namespace sim
