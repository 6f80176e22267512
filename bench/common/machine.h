// What a measuring process asks of the machine it runs on.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

namespace bench {

// What ends a program: it writes the text as its one line and returns a status that is not 0.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void fail_with_errno(const std::string &what);

using Bytes = std::span<const uint8_t>;

inline Bytes bytes_of(std::string_view text) { return {reinterpret_cast<const uint8_t *>(text.data()), text.size()}; }

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A process of the bench ends with the one that started it, on one core of its own, and a broken connection is an error
// code and no signal. A negative core leaves the choice to the kernel.
void settle(int core);

// queued_seconds returns how long this process has been ready to run while other work had its core.
double queued_seconds();

// heap_bytes returns how many bytes of the heap are in use.
size_t heap_bytes();

}  // namespace bench
