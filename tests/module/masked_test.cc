// SPDX-License-Identifier: MIT

#include "module/masked.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

TEST(masked, the_first_difference_decides_by_words_and_then_by_bytes) {
    const bytes ones(5, 0xff);
    const struct {
        bytes a, b, mask;
        int32_t length, order;
    } cases[] = {
        {{1, 0, 0, 2}, {2, 0, 0, 1}, ones, 4, 1},        // the last byte of a word weighs most
        {{0, 0, 0, 0x80}, {0, 0, 0, 0x7f}, ones, 4, 1},  // unsigned
        {{9, 2, 3, 4, 0}, {1, 2, 3, 4, 9}, ones, 5, 1},
        {{9, 2, 3, 4, 0}, {1, 2, 3, 4, 9}, {0, 0, 0, 0, 1}, 5, -1},
        {{1, 2, 3}, {3, 2, 1}, ones, -1, 0},
    };
    for (const auto &each : cases) {
        EXPECT_EQ(zarn_masked_cmp(each.a.data(), each.b.data(), each.mask.data(), each.length), each.order);
        EXPECT_EQ(zarn_masked_cmp(each.b.data(), each.a.data(), each.mask.data(), each.length), -each.order);
    }
}

TEST(masked, agrees_with_single_bytes_at_any_length_and_alignment) {
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        bytes src(24), mask(24), dst(24);
        for (auto *area : {&src, &mask, &dst})
            for (uint8_t &byte : *area)
                byte = static_cast<uint8_t>(random());
        const size_t at = random() % 4, from = random() % 4, under = random() % 4, length = random() % 20;
        bytes expected = dst, other = src;
        if (length != 0) other[from + random() % length] ^= static_cast<uint8_t>(random());
        bool equal = true;
        for (size_t i = 0; i < length; ++i) {
            expected[at + i] = src[from + i] & mask[under + i];
            equal = equal && expected[at + i] == (other[from + i] & mask[under + i]);
        }
        const auto count = static_cast<int32_t>(length);
        zarn_masked_copy(&dst[at], &src[from], &mask[under], count);
        ASSERT_EQ(dst, expected) << "offsets " << at << ' ' << from << ' ' << under << " length " << length;
        ASSERT_EQ(zarn_masked_cmp(&src[from], &other[from], &mask[under], count) == 0, equal);
    }
}

}  // namespace
