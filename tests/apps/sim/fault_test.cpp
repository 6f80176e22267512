// The table of the faults, the line that a fault is written as, and which connections meet it.
#include "sim/fault.h"

#include <climits>
#include <map>

#include <gtest/gtest.h>

#include "common/text.h"
#include "sim/chaos.h"
#include "sim/fault_set.h"

using common::cat;
using sim::ConnectionFaults;
using sim::Direction;
using sim::Fault;
using sim::FaultKind;
using sim::FaultRow;
using sim::FaultSet;
using sim::parse_fault;
using sim::show_fault;
using sim::Stage;

namespace {

const char *unit_of(const sim::Parameter &parameter) { return parameter.unit == sim::Unit::time ? "ms" : ""; }

// The least that a parameter may be.
std::string least(const sim::Parameter &parameter) {
    if (parameter.unit == sim::Unit::word) return std::string(parameter.choices[0]);
    if (parameter.unit == sim::Unit::text) return "x";
    return cat(parameter.min, unit_of(parameter));
}

// A line with the least that the fault needs.
std::string shortest(const FaultRow &row) {
    std::string line(row.name);
    for (const sim::Parameter &parameter : row.used_parameters()) {
        if (!parameter.initial) line += cat(" ", least(parameter));
    }
    return line;
}

std::string refusal(const std::string &line) {
    try {
        parse_fault(line);
    } catch (const common::BadInput &bad) {
        return bad.what();
    }
    return "accepted";
}

// The connections from 1 to 20 that meet the one fault, as a text of ones and zeros.
std::string met_by(const std::string &line) {
    FaultSet all;
    all.add(parse_fault(line));
    std::string out;
    for (int id = 1; id <= 20; id++) {
        ConnectionFaults faults(all, id, "base", [](const Fault &) {});
        out += faults.find(FaultKind::reset_peer, Stage::open) ? '1' : '0';
    }
    return out;
}

}  // namespace

TEST(sim_fault, every_fault_of_the_table_is_read_and_shown_again) {
    for (const FaultRow &row : sim::fault_table()) {
        const std::string line = shortest(row);
        const Fault fault = parse_fault(line);
        EXPECT_EQ(fault.row, &row) << line;
        EXPECT_EQ(show_fault(parse_fault(show_fault(fault))), show_fault(fault)) << line;
        EXPECT_FALSE(row.help.empty()) << line;
        EXPECT_NE(cat("\n", sim::fault_help()).find(cat("\n  ", row.name, " ")), std::string::npos) << line;
    }
}

TEST(sim_fault, every_stage_of_a_fault_is_accepted_and_no_other) {
    for (const FaultRow &row : sim::fault_table()) {
        for (size_t i = 0; i < row.stages.size(); i++) {
            const std::string line = cat(shortest(row), " at=", sim::stage_name(static_cast<Stage>(i)));
            EXPECT_EQ(refusal(line) == "accepted", row.stages[i]) << line;
        }
    }
}

TEST(sim_fault, the_limits_of_every_parameter_are_accepted_and_nothing_beyond) {
    for (const FaultRow &row : sim::fault_table()) {
        for (const sim::Parameter &parameter : row.used_parameters()) {
            if (parameter.unit == sim::Unit::word || parameter.unit == sim::Unit::text) continue;
            const auto with = [&](long value) {
                std::string line(row.name);
                for (const sim::Parameter &other : row.used_parameters()) {
                    line += cat(" ", other.name, "=",
                                other.name == parameter.name ? cat(value, unit_of(other)) : least(other));
                }
                return line;
            };
            EXPECT_EQ(refusal(with(parameter.min)), "accepted");
            EXPECT_EQ(refusal(with(parameter.max)), "accepted");
            if (parameter.max == LONG_MAX) continue;
            EXPECT_NE(refusal(with(parameter.max + 1)), "accepted") << with(parameter.max + 1);
            EXPECT_NE(refusal(with(parameter.min - 1)), "accepted") << with(parameter.min - 1);
        }
    }
}

TEST(sim_fault, a_line_is_shown_in_its_shortest_form) {
    const std::pair<const char *, const char *> cases[] = {
        {"latency 200ms jitter 50ms model=base", "latency 200ms jitter 50ms model=base"},
        {"latency time=200ms jitter=50ms model base", "latency 200ms jitter 50ms model=base"},
        {" latency  0.2s\t50ms ", "latency 200ms jitter 50ms"},
        {"latency 1500ms jitter 0", "latency 1500ms"},
        {"latency 120s", "latency 2m"},
        {"bandwidth 2048 to=module", "bandwidth 2k to=module"},
        {"slicer 1 pause 1ms", "slicer 1"},
        {"limit_data 1M at=open", "limit_data 1M at=open"},
        {"timeout", "timeout"},
        {"timeout 0 count=2", "timeout count=2"},
        {"reset_peer probability=30% seed=7", "reset_peer probability=30% seed=7"},
        {"half_close seed=1 probability=100%", "half_close"},
        {"redirect 302 http://host/?a=b&model=c", "redirect 302 http://host/?a=b&model=c"},
        {"redirect 302 location=a=b", "redirect 302 location=a=b"},
        {"other_host host=at", "other_host host=at"},
    };
    for (const auto &[line, shown] : cases) EXPECT_EQ(show_fault(parse_fault(line)), shown);
}

TEST(sim_fault, a_wrong_line_is_refused_with_the_word_and_the_reason) {
    const std::pair<const char *, const char *> cases[] = {
        {"", "bad fault '': no fault is named"},
        {"slow", "bad fault 'slow': no fault is called 'slow'; --help lists all"},
        {"latency", "bad fault 'latency': latency needs TIME [jitter TIME]"},
        {"latency 200", "bad fault 'latency 200': time '200' is no time from 0 to 60m, in ms, s or m"},
        {"latency -1ms", "bad fault 'latency -1ms': time '-1ms' is no time from 0 to 60m, in ms, s or m"},
        {"latency nan", "bad fault 'latency nan': time 'nan' is no time from 0 to 60m, in ms, s or m"},
        {"latency 61m", "bad fault 'latency 61m': time '61m' is no time from 0 to 60m, in ms, s or m"},
        {"latency 1ms 2ms 3ms", "bad fault 'latency 1ms 2ms 3ms': '3ms' is too much: latency takes TIME [jitter TIME]"},
        {"latency 1ms time=2ms", "bad fault 'latency 1ms time=2ms': 'time' is given twice"},
        {"latency 1ms jitter", "bad fault 'latency 1ms jitter': 'jitter' has no value"},
        {"latency 1ms pause=2ms", "bad fault 'latency 1ms pause=2ms': latency takes no 'pause'"},
        {"half_close 1ms", "bad fault 'half_close 1ms': '1ms' is too much: half_close takes no parameter"},
        {"slicer 1.5", "bad fault 'slicer 1.5': size '1.5' is no size from 1 to 64M, in bytes, k or M"},
        {"slicer 0", "bad fault 'slicer 0': size '0' is no size from 1 to 64M, in bytes, k or M"},
        {"bandwidth 1g", "bad fault 'bandwidth 1g': rate '1g' is no size a second from 1 to 64M, in bytes, k or M"},
        {"timeout at=noon",
         "bad fault 'timeout at=noon': at 'noon' is none of accept, tls, upgrade, registration, open"},
        {"slicer 1 at=accept",
         "bad fault 'slicer 1 at=accept': slicer is not for at=accept, only for tls, upgrade, registration, open"},
        {"reset_peer to=module", "bad fault 'reset_peer to=module': reset_peer has no direction"},
        {"timeout to=moon", "bad fault 'timeout to=moon': to 'moon' is none of module, platform"},
        {"timeout count=0", "bad fault 'timeout count=0': count '0' is no number from 1 to 1000000"},
        {"timeout count=1 count=1", "bad fault 'timeout count=1 count=1': 'count' is given twice"},
        {"timeout probability=101%",
         "bad fault 'timeout probability=101%': probability '101%' is no share from 1% to 100%"},
        {"timeout probability=30", "bad fault 'timeout probability=30': probability '30' is no share from 1% to 100%"},
        {"timeout seed=x", "bad fault 'timeout seed=x': seed 'x' is no number from 0 to 4294967295"},
        {"timeout model=", "bad fault 'timeout model=': model '' has not 1 to 32 bytes"},
    };
    for (const auto &[line, reason] : cases) EXPECT_EQ(refusal(line), reason);
}

TEST(sim_fault, the_same_seed_chooses_the_same_connections) {
    const std::string first = met_by("reset_peer probability=50% seed=7");
    EXPECT_EQ(met_by("reset_peer probability=50% seed=7"), first);
    EXPECT_NE(met_by("reset_peer probability=50% seed=8"), first);
    EXPECT_NE(first.find('0'), std::string::npos);
    EXPECT_NE(first.find('1'), std::string::npos);
    EXPECT_EQ(met_by("reset_peer"), std::string(20, '1'));
}

TEST(sim_fault, a_count_is_one_of_connections) {
    EXPECT_EQ(met_by("reset_peer count=3"), "111" + std::string(17, '0'));
}

TEST(sim_fault, a_connection_meets_a_fault_once_however_often_it_is_asked) {
    FaultSet all;
    all.add(parse_fault("reset_peer count=1"));
    int told = 0;
    ConnectionFaults faults(all, 1, "", [&](const Fault &) { told++; });
    for (int i = 0; i < 3; i++) EXPECT_NE(faults.find(FaultKind::reset_peer, Stage::open), nullptr);
    EXPECT_EQ(told, 1);
    EXPECT_EQ(all.active().front()->applied, 1);
}

TEST(sim_fault, model_stage_and_direction_restrict_a_fault) {
    FaultSet all;
    all.add(parse_fault("timeout model=base at=open to=module"));
    ConnectionFaults unknown(all, 1, "", [](const Fault &) {});
    EXPECT_EQ(unknown.find(FaultKind::timeout, Stage::open, Direction::to_module), nullptr);
    unknown.set_model("other");
    EXPECT_EQ(unknown.find(FaultKind::timeout, Stage::open, Direction::to_module), nullptr);
    unknown.set_model("base");
    EXPECT_EQ(unknown.find(FaultKind::timeout, Stage::upgrade, Direction::to_module), nullptr);
    EXPECT_EQ(unknown.find(FaultKind::timeout, Stage::open, Direction::to_platform), nullptr);
    EXPECT_EQ(unknown.find(FaultKind::latency, Stage::open, Direction::to_module), nullptr);
    EXPECT_NE(unknown.find(FaultKind::timeout, Stage::open, Direction::to_module), nullptr);
}

TEST(sim_fault, a_fault_replaces_the_one_in_its_place) {
    FaultSet all;
    all.add(parse_fault("latency 1ms"));
    all.add(parse_fault("latency 2ms model=base"));
    all.add(parse_fault("latency 3ms"));
    ASSERT_EQ(all.active().size(), 2u);
    EXPECT_EQ(show_fault(all.active().front()->fault), "latency 3ms");
    EXPECT_FALSE(all.off("timeout"));
    EXPECT_TRUE(all.off("latency"));
    EXPECT_TRUE(all.active().empty());
}

TEST(sim_fault, a_seed_draws_the_same_schedule_of_many_faults_and_each_can_be_read) {
    std::map<std::string, int> drawn;
    for (long seed = 0; seed < 100; seed++) {
        const auto steps = sim::chaos_steps(seed);
        EXPECT_EQ(steps, sim::chaos_steps(seed));
        EXPECT_NE(steps, sim::chaos_steps(seed + 1));
        for (size_t i = 0; i < steps.size(); i += 4) {
            const std::string line = steps[i].substr(std::string("fault ").size());
            EXPECT_EQ(show_fault(parse_fault(line)), line);
            drawn[std::string(parse_fault(line).row->name)]++;
            EXPECT_EQ(steps[i + 2], "fault off");
        }
    }
    EXPECT_EQ(drawn.size(), sim::fault_table().size());
}
