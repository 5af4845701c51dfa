// SPDX-License-Identifier: MIT

#include "module/masked.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

using bytes = std::vector<uint8_t>;

// The first difference decides, by words in which the last byte weighs most, and by bytes behind the last word.
static int32_t order_of(const bytes &a, const bytes &b) {
    size_t at = 0;
    for (uint32_t one, other; at + 4 <= a.size(); at += 4) {
        memcpy(&one, &a[at], 4), memcpy(&other, &b[at], 4);
        if (one != other) return one > other ? 1 : -1;
    }
    const int32_t rest = at == a.size() ? 0 : memcmp(&a[at], &b[at], a.size() - at);
    return (rest > 0) - (rest < 0);
}

TEST(masked, agrees_with_the_rule_at_any_length_and_alignment) {
    std::mt19937 random(7);
    for (int round = 0; round < 5000; ++round) {
        bytes src(24), mask(24), dst(24);
        for (auto *area : {&src, &mask, &dst})
            for (uint8_t &byte : *area)
                byte = static_cast<uint8_t>(random());
        const size_t at = random() % 4, from = random() % 4, under = random() % 4, length = random() % 20;
        bytes expected = dst, other = src, one_masked(length), other_masked(length);
        for (size_t changes = random() % 3; changes > 0 && length != 0; --changes)
            other[from + random() % length] ^= static_cast<uint8_t>(random());
        for (size_t i = 0; i < length; ++i) {
            one_masked[i] = expected[at + i] = src[from + i] & mask[under + i];
            other_masked[i] = other[from + i] & mask[under + i];
        }
        const auto count = static_cast<int32_t>(length);
        zarn_masked_copy(&dst[at], &src[from], &mask[under], count);
        ASSERT_EQ(dst, expected) << "offsets " << at << ' ' << from << ' ' << under << " length " << length;
        ASSERT_EQ(zarn_masked_cmp(&src[from], &other[from], &mask[under], count),
                  order_of(one_masked, other_masked));
        ASSERT_EQ(zarn_masked_cmp(&src[from], &other[from], &mask[under], -1), 0);
    }
}
