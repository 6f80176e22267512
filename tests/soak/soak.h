// Soak: what the long runs share. Each run is one test of the program soak_test; how long it runs and what it draws
// comes from the command line:
//
//   soak_test --gtest_filter=SetupSoak.* --form=full --seed=17
//
// The three forms differ in counts alone: `full` is `make soak`, `short` goes with the tests of what is shipped,
// `shortest` with those under the sanitizers. A run ends with one line of figures; one that finds something ends with
// the command that repeats it.
#ifndef TESTS_SOAK_SOAK_H
#define TESTS_SOAK_SOAK_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/support/fixture.h"

namespace soak {

enum class Form { full, shorter, shortest };

struct Options {
    Form form = Form::shortest;
    uint64_t seed = 1;
};
const Options &options();

// How much of something each form does.
struct Amount {
    int full;
    int shorter;
    int shortest;
    operator int() const;  // that of the form in force
};

// What a run draws. Equal seeds draw equally, on every machine.
class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t next();
    int below(int limit) { return static_cast<int>(next() % static_cast<uint64_t>(limit)); }
    int between(int low, int high) { return low + below(high - low + 1); }
    bool percent(int chance) { return below(100) < chance; }
    double fraction();  // 0 up to, not with, 1
    std::string bytes(size_t count);

  private:
    uint64_t state_;
};

// What the process holds at a moment when nothing is under way. Under the sanitizers blocks are not counted and pages
// say nothing.
struct Holdings {
    int64_t blocks = 0;  // of memory, given out and not given back
    int64_t bytes = 0;   // in them
    int64_t pages = 0;   // resident
    int descriptors = 0;
    uint32_t setups = 0;
    uint32_t connections = 0;
    uint32_t models = 0;
    uint32_t timers = 0;
};
Holdings holdings();
// Equal in everything; of the resident pages the later one may have kSparePages more.
constexpr int64_t kSparePages = 256;
void expect_same(const Holdings &before, const Holdings &after);

// The library brought up as in its unit tests, but with a print callback that formats every message up to CONNECT and
// keeps none.
class SoakTest : public support::LibraryTest {
  protected:
    SoakTest();

    static CLOUDTUNNEL_LIB_INIT_DATA init_data();

    // A turn of the library's loop, and another, until nothing is ready.
    void turn_until_idle();
    // Counts that tables give for themselves, against their lists.
    static void expect_counts_true();

    // The line that a run ends with.
    void figures(const char *format, ...) const __attribute__((format(printf, 2, 3)));

  private:
    double began_s_;
};

// Seconds of the machine's clock, not of the test's.
double real_s();

}  // namespace soak

#endif
