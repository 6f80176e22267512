// Courses: what a case does. A mode is a choice of steps with weights; a case draws steps of its mode, from inside
// callbacks, too, and ends with an orderly end of everything, after which no block may differ either.
#ifndef TESTS_COMPARE_COURSE_H
#define TESTS_COMPARE_COURSE_H

#include <cstdint>
#include <vector>

namespace compare {

const std::vector<const char *> &modes();

// Runs one case of the library under test, from the world on that is in force, and ends the process.
[[noreturn]] void run_case(int mode);

}  // namespace compare

#endif
