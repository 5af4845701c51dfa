// SPDX-License-Identifier: MIT
//
// The check of memory maps, on a module that gives wrong ones.

#include "host/dma_check.h"

#include <gtest/gtest.h>

struct lock_token {};

namespace {

lock_token gToken, *gGiven;
int32_t gRuns, gLocked;
memory_run gMap[2];

TEST(dma_check, finds_what_a_broken_module_gives) {
    zarn_util_module_t util = {};
    util.count_zarn_data_iovecs = [](zarn_data_t *) { return 1u; };
    util.lock_zarn_data = [](zarn_data_t *data) {
        EXPECT_EQ(data->flags, DATA_NEEDS_LOCK);
        gLocked += gGiven != nullptr;
        return gGiven;
    };
    util.unlock_zarn_data = [](lock_token *token) { gLocked -= token != nullptr; };
    util.zarn_free = [](void *token) { EXPECT_EQ(token, gGiven); };
    util.get_data_memory_map = [](zarn_data_t *, memory_run *table, uint32_t count, uint8_t no_fault) {
        EXPECT_TRUE(no_fault != 0 && count >= 2);
        for (int32_t i = 0; i < gRuns; i++)
            table[i] = gMap[i];
        return gRuns;
    };
    const struct {
        lock_token *token;
        int32_t runs;
        uint32_t first, second;
        uint64_t faults;
    } cases[] = {{&gToken, 1, 100, 0, 0}, {&gToken, 2, 60, 40, 0},         {&gToken, 2, 60, 41, 1},
                 {&gToken, 1, 99, 1, 1},  {&gToken, -1, 100, 0, 1},        {&gToken, 0, 0, 0, 1},
                 {nullptr, 1, 100, 0, 1}, {&gToken, 2, UINT32_MAX, 101, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        gGiven = c.token;
        gRuns = c.runs;
        gMap[0].size = c.first;
        gMap[1].size = c.second;
        zarn_data_t data = {};
        data.length = 100;
        dma_counts counts;
        check_dma(&util, &data, &counts);
        EXPECT_EQ(counts.faults, c.faults);
        EXPECT_EQ(counts.buffers, 1 - c.faults);
        EXPECT_EQ(counts.runs, c.faults != 0 ? 0u : static_cast<uint64_t>(c.runs));
        EXPECT_EQ(gLocked, 0);
    }
}

}  // namespace
