#include "masks.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>
#include <vector>

namespace {

TEST(Masks, a_thousand_masks_do_not_repeat) {
    module_program::Masks masks;
    std::set<std::vector<uint8_t>> seen;
    for (int i = 0; i < 1000; ++i) {
        const uint8_t *const mask = masks.next();
        seen.insert(std::vector<uint8_t>(mask, mask + 4));
    }
    EXPECT_GT(seen.size(), 995U);  // of 2^32: more than a few repetitions would be no chance
}

TEST(Masks, two_sources_give_different_masks) {
    module_program::Masks one;
    module_program::Masks other;
    std::array<uint8_t, 4> first = {};
    std::memcpy(first.data(), one.next(), first.size());
    int same = 0;
    for (int i = 0; i < 100; ++i) same += std::memcmp(first.data(), other.next(), first.size()) == 0 ? 1 : 0;
    EXPECT_LT(same, 3);
}

}  // namespace
