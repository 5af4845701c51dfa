// SPDX-License-Identifier: MIT

#include "diagnostics/quick_sort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace {

uint64_t gComparisons;

// By all bytes, so that an element that is swapped in part shows.
template <size_t size>
int32_t compare(const void *a, const void *b) {
    ++gComparisons;
    return memcmp(a, b, size);
}

// Sorts `count` elements at an address that is aligned or not, and looks around them.
template <size_t size>
void expect_sorted(uint32_t count, uint32_t values, uint32_t seed, size_t offset) {
    SCOPED_TRACE(testing::Message() << size << " bytes, " << count << " of " << values << " values, at "
                                    << offset);
    using element = std::array<uint8_t, size>;
    std::mt19937 random(seed);
    std::vector<element> expected(count);
    for (element &each : expected) {
        const uint32_t value = random() % values;
        for (size_t i = 0; i < size; ++i)
            each[i] = static_cast<uint8_t>(value >> (i % 2 != 0 ? 0 : 8));
    }
    std::vector<uint8_t> memory(count * size + offset + 8, 0xa5);
    memcpy(memory.data() + offset, expected.data(), count * size);
    q_sort(memory.data() + offset, count, size, compare<size>);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(memcmp(memory.data() + offset, expected.data(), count * size), 0);
    for (size_t i = 0; i < 8; ++i)
        EXPECT_EQ(memory[i < offset ? i : offset + count * size + i - offset], 0xa5);
}

TEST(q_sort, agrees_with_another_sort_at_the_limits_of_its_paths) {
    uint32_t seed = 0;
    for (uint32_t count : {1, 2, 6, 7, 8, 9, 39, 40, 41, 42, 300, 2000}) {
        for (uint32_t values : {1, 2, 5, 65536}) {
            for (int round = 0; round < 5; ++round, ++seed) {
                expect_sorted<4>(count, values, seed, 0);
                expect_sorted<4>(count, values, seed, 2);
                expect_sorted<12>(count, values, seed, 0);
                expect_sorted<7>(count, values, seed, 0);
            }
        }
    }
}

TEST(q_sort, does_little_where_there_is_little_to_do) {
    constexpr uint32_t kCount = 4096;
    std::vector<uint32_t> values(kCount);
    auto run = [&](auto value_of) {
        for (uint32_t i = 0; i < kCount; ++i)
            values[i] = __builtin_bswap32(value_of(i));  // memcmp orders by the first byte
        gComparisons = 0;
        q_sort(values.data(), kCount, 4, compare<4>);
        return gComparisons;
    };
    // One pass of the partition and one of the insertion sort, and the pivot's twelve.
    EXPECT_LE(run([](uint32_t i) { return i; }), 2 * kCount + 12);
    // All equal: one pass.
    EXPECT_LE(run([](uint32_t) { return 7; }), kCount + 12);
}

}  // namespace
