// SPDX-License-Identifier: MIT

#include "memory/address_cache.h"

#include <algorithm>

#include "tests/support/stress.h"

namespace {

// Ranges that lie over each other in few strides, so that each chain has links of every thread.
TEST_F(stress_test, CachedRangesAreFoundAsLongAsTheyStandBesideAllOthers) {
    alignas(4096) static uint8_t memory[3 * 16384];
    std::fill_n(memory, sizeof memory, 1);  // has its pages from here on
    std::atomic<int> missed{0}, found_others{0};
    run_threads(4, [&](int seed) {
        dice roll(seed);
        const int32_t self = kern_thread_self();
        for (int round = stress_rounds(3000); round > 0; --round) {
            uint8_t *first = memory + roll.roll(30000);
            const uint32_t length = 1 + roll.roll(18000);
            address_spec *spec = cache_address_spec(first, length, seed == 0 ? 0 : self);
            memory_run runs[8];
            uint32_t bytes = 0;
            const int32_t filled = get_cached_memory_map(first, length, runs, 8);
            for (int32_t i = 0; i < filled; ++i)
                bytes += runs[i].size;
            missed += spec == nullptr || bytes != length;
            // What only others may have cached comes and goes.
            found_others += get_cached_memory_map(memory + roll.roll(40000), 1, runs, 1);
            free_address_spec(spec);
        }
    });
    EXPECT_EQ(missed, 0);
    EXPECT_GT(found_others, 0);
    for (uint32_t i = 0; i < gAddressCache->bucket_count; ++i)
        EXPECT_EQ(gAddressCache->buckets[i], nullptr);
    EXPECT_EQ(gAddressCache->count, 0);
}

}  // namespace
