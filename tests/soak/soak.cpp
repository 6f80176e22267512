#include "tests/soak/soak.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include "tests/soak/allocations.h"
#include "tests/support/quiet.h"

namespace soak {
namespace {

Options chosen;
std::string program;

// Formats and forgets.
int print(uint32_t, const char *format, ...) __attribute__((format(printf, 2, 3)));
int print(uint32_t, const char *format, ...) {
    static char text[8192];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return 0;
}

int64_t resident_pages() {
    const support::Quiet quiet;
    long long size = 0;
    long long resident = 0;
    FILE *const file = fopen("/proc/self/statm", "r");
    const bool read = file && fscanf(file, "%lld %lld", &size, &resident) == 2;
    if (file) fclose(file);
    if (!read) throw std::runtime_error("/proc/self/statm cannot be read");
    return resident;
}

const char *form_name() {
    switch (chosen.form) {
        case Form::full:
            return "full";
        case Form::shorter:
            return "short";
        case Form::shortest:
            return "shortest";
    }
    return "";
}

bool starts_with(const char *text, const char *with, const char **rest) {
    const size_t length = std::strlen(with);
    *rest = text + length;
    return std::strncmp(text, with, length) == 0;
}

bool take_form(const char *name) {
    for (const Form form : {Form::full, Form::shorter, Form::shortest}) {
        chosen.form = form;
        if (std::strcmp(name, form_name()) == 0) return true;
    }
    return false;
}

bool take_seed(const char *text) {
    char *end = nullptr;
    chosen.seed = std::strtoull(text, &end, 10);
    return *text && *end == '\0';
}

bool take(const char *argument) {
    const char *value = nullptr;
    if (starts_with(argument, "--form=", &value)) return take_form(value);
    if (starts_with(argument, "--seed=", &value)) return take_seed(value);
    return false;
}

// Prints how to see a finding again.
class Repeat : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo &test) override {
        if (!test.result()->Failed()) return;
        std::printf("seed %llu; again: %s --gtest_filter=%s.%s --form=%s --seed=%llu\n",
                    static_cast<unsigned long long>(chosen.seed), program.c_str(), test.test_suite_name(), test.name(),
                    form_name(), static_cast<unsigned long long>(chosen.seed));
    }
};

uint32_t length_of(const cloudtunnel_link &head) {
    uint32_t length = 0;
    for (const cloudtunnel_link *link = head.next; link && link != &head; link = link->next) ++length;
    return length;
}

}  // namespace

const Options &options() { return chosen; }

Amount::operator int() const {
    return chosen.form == Form::full ? full : chosen.form == Form::shorter ? shorter : shortest;
}

// splitmix64: one multiplication-and-shift mix of a counter, good from any seed on.
uint64_t Random::next() {
    uint64_t mixed = state_ += 0x9e3779b97f4a7c15;
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
    return mixed ^ (mixed >> 31);
}

double Random::fraction() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

std::string Random::bytes(size_t count) {
    std::string all(count, '\0');
    for (char &byte : all) byte = static_cast<char>(next());
    return all;
}

Holdings holdings() {
    const int descriptors = support::open_descriptors();
    malloc_trim(0);
    const Allocations memory = allocations();
    return {.blocks = memory.blocks,
            .bytes = memory.bytes,
            .pages = kAllocationsCounted ? resident_pages() : 0,
            .descriptors = descriptors,
            .setups = wscnctlist.count,
            .connections = cloudtunnel_connectlist.count,
            .models = cloudtunnel_urllist.count,
            .timers = cloudtunnel_timerlist.count};
}

void expect_same(const Holdings &before, const Holdings &after) {
    EXPECT_EQ(after.blocks, before.blocks) << "blocks of memory";
    EXPECT_EQ(after.bytes, before.bytes) << "bytes of memory";
    EXPECT_LE(after.pages, before.pages + kSparePages) << "resident pages";
    EXPECT_EQ(after.descriptors, before.descriptors) << "descriptors";
    EXPECT_EQ(after.setups, before.setups) << "tunnels being set up";
    EXPECT_EQ(after.connections, before.connections) << "connections";
    EXPECT_EQ(after.models, before.models) << "models";
    EXPECT_EQ(after.timers, before.timers) << "timers";
}

double real_s() {
    const support::Quiet quiet;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

SoakTest::SoakTest() : began_s_(real_s()) {
    const CLOUDTUNNEL_LIB_INIT_DATA data = init_data();
    CLOUDMGR_debug_Init(&data);
    cloudmgr_debug_level = support::kConnect;
}

CLOUDTUNNEL_LIB_INIT_DATA SoakTest::init_data() {
    CLOUDTUNNEL_LIB_INIT_DATA data = {};
    data.pfnPrint = print;
    return data;
}

void SoakTest::turn_until_idle() {
    while (turn()) {
    }
}

void SoakTest::expect_counts_true() {
    EXPECT_EQ(length_of(wscnctlist.link), wscnctlist.count) << "tunnels being set up";
    EXPECT_EQ(length_of(cloudtunnel_connectlist.head.link), cloudtunnel_connectlist.count) << "connections";
    EXPECT_EQ(length_of(cloudtunnel_urllist.head.link), cloudtunnel_urllist.count) << "models";
    EXPECT_EQ(length_of(cloudtunnel_timerlist.link), cloudtunnel_timerlist.count) << "timers";
}

void SoakTest::figures(const char *format, ...) const {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    const testing::TestInfo *const test = testing::UnitTest::GetInstance()->current_test_info();
    std::printf("%s (%s, seed %llu): %s; %.1f s\n", test->test_suite_name(), form_name(),
                static_cast<unsigned long long>(chosen.seed), text, real_s() - began_s_);
    std::fflush(stdout);
}

}  // namespace soak

// A failed read is printed on the standard error output as well, by perror: many thousand lines in a run.
void perror(const char *) {}

int main(int argc, char **argv) {
    using namespace soak;
    program = argv[0];
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (take(argv[i])) continue;
        std::fprintf(stderr, "soak_test: what is %s? --form=full|short|shortest, --seed=NUMBER, --gtest_filter=RUN\n",
                     argv[i]);
        return 2;
    }
    testing::UnitTest::GetInstance()->listeners().Append(new Repeat);
    return RUN_ALL_TESTS();
}
