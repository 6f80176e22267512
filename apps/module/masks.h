// Mask keys that nobody can foresee, taken from the kernel in batches (RFC 6455, section 10.3). The library's own,
// CLOUDMGR_ws_getMask, come from the clock, and each of them seeds the C library's generator eight times.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace module_program {

class Masks {
  public:
    // next returns four bytes, which stay as they are until the next call.
    const uint8_t *next();

  private:
    static constexpr size_t kMaskSize = 4;
    std::array<uint8_t, 64 *kMaskSize> batch_ = {};
    size_t used_ = sizeof batch_;
};

}  // namespace module_program
