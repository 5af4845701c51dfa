// SPDX-License-Identifier: MIT

#include "module/allocator.h"

#include <zarn/status.h>

#include <cstring>

#include "tests/support/failures.h"
#include "tests/support/fixture.h"

namespace {

using allocator_test = module_test;
using allocator_start_test = kernel_test;

// Where a block came from.
char source_of(const void *block) {
    if (block == nullptr) return '-';
    if (block < gMP.start || block >= gMP.end) return test_kernel::on_heap(block) ? 'h' : '?';
    if (block >= gMP.small_base) return 's';
    return block >= gMP.medium_base ? 'm' : 'l';
}

TEST_F(allocator_test, EachSizeComesFromItsClassAndGoesBackThere) {
    struct {
        uint32_t size;
        char source;
    } const cases[] = {{0, 's'},
                       {1, 's'},
                       {kSmallBlock, 's'},
                       {kSmallBlock + 1, 'm'},
                       {kMediumBlock, 'm'},
                       {kMediumBlock + 1, 'l'},
                       {kLargeBlock, 'l'},
                       {kLargeBlock + 1, 'h'},
                       {100000, 'h'}};
    for (auto &c : cases) {
        SCOPED_TRACE(c.size);
        void *fast = zarn_falloc(c.size);
        EXPECT_EQ(source_of(fast), c.source);
        zarn_free(fast);
        auto *zeroed = static_cast<uint8_t *>(zarn_zalloc(c.size));
        EXPECT_EQ(source_of(zeroed), c.source);
        if (c.source != 'h') {
            EXPECT_EQ(zeroed, fast) << "the block given back last is the next one out";
        }
        EXPECT_EQ(std::count(zeroed, zeroed + c.size, 0), c.size);
        zarn_free(zeroed);
        EXPECT_EQ(blocks_out(), "");
        EXPECT_EQ(test_kernel::heap_blocks(), 3) << "the records of the three pools";
    }
}

TEST_F(allocator_test, ThePoolsFillTheRegionLargestFirst) {
    EXPECT_EQ(gMP.large_base, gMP.start);
    EXPECT_EQ(static_cast<char *>(gMP.medium_base) - static_cast<char *>(gMP.start), 0x40000);
    EXPECT_EQ(static_cast<char *>(gMP.end) - static_cast<char *>(gMP.start),
              sizeof(void *) == 4 ? 0x50000 : 0x60000);

    // Every block of every class, so that the first and the last of each run meet the borders of the
    // routing.
    std::vector<void *> blocks;
    struct {
        uint32_t size;
        int32_t count;
        void *base;
    } const classes[] = {{kLargeBlock, 128, gMP.large_base},
                         {kMediumBlock, 256, gMP.medium_base},
                         {kSmallBlock, 1024, gMP.small_base}};
    for (auto &c : classes) {
        for (int32_t i = 0; i < c.count; ++i) {
            void *block = zarn_falloc(c.size);
            ASSERT_EQ(block, static_cast<char *>(c.base) + i * c.size);
            blocks.push_back(block);
        }
    }
    EXPECT_EQ(static_cast<char *>(blocks.back()) + kSmallBlock, gMP.end);
    for (void *block : blocks)
        zarn_free(block);
    EXPECT_EQ(blocks_out(), "");
}

TEST_F(allocator_test, ADryPoolFallsBackToTheHeapNotToTheNextClass) {
    struct {
        uint32_t size;
        mempool_t *pool;
        char source;
    } const cases[] = {{kSmallBlock, gMP.small_pool, 's'},
                       {kMediumBlock, gMP.medium_pool, 'm'},
                       {kLargeBlock, gMP.large_pool, 'l'}};
    for (auto &c : cases) {
        SCOPED_TRACE(c.size);
        std::vector<void *> all;
        while (free_blocks(c.pool) != 0)
            all.push_back(zarn_falloc(c.size));
        void *heap = zarn_falloc(c.size);
        EXPECT_EQ(source_of(heap), 'h');
        zarn_free(heap);
        EXPECT_EQ(free_blocks(c.pool), 0) << "heap memory must not get into the pool";
        zarn_free(all.back());
        EXPECT_EQ(zarn_falloc(c.size), all.back());
        for (void *block : all)
            zarn_free(block);
    }
    starved_memory hunger(0);
    for (uint32_t size : {0u, 32u, 128u, 2048u, 2049u}) {
        EXPECT_EQ(zarn_falloc(size), nullptr);
        EXPECT_EQ(zarn_zalloc(size), nullptr);
        EXPECT_EQ(zarn_malloc(size), nullptr);
    }
}

TEST_F(allocator_test, OnlyTheBytesThatWereAskedForAreCleared) {
    constexpr uint32_t kAsked = kMediumBlock - 28;
    auto *block = static_cast<uint8_t *>(zarn_falloc(kAsked));
    memset(block, 0x77, kMediumBlock);
    zarn_free(block);
    ASSERT_EQ(zarn_zalloc(kAsked), block);
    EXPECT_EQ(std::count(block, block + kAsked, 0), kAsked);
    EXPECT_EQ(std::count(block + kAsked, block + kMediumBlock, 0x77), 28);
    zarn_free(block);
}

TEST_F(allocator_test, TheHeapAloneServesZarnMallocAndTakesNull) {
    for (uint32_t size : {0u, 16u, 5000u}) {
        auto *block = static_cast<uint8_t *>(zarn_malloc(size));
        EXPECT_EQ(source_of(block), 'h');
        EXPECT_EQ(std::count(block, block + size, 0), size);
        zarn_free(block);
    }
    zarn_free(nullptr);
}

TEST_F(allocator_test, PoolBlocksNeedNoHeapAtInterruptLevel) {
    test_kernel::interrupt_level guard;
    for (uint32_t size : {32u, 128u, 2048u})
        zarn_free(zarn_zalloc(size));
}

TEST_F(allocator_start_test, BeforeTheStartEverythingIsHeap) {
    gMP = {};
    void *block = zarn_falloc(16);
    EXPECT_EQ(source_of(block), 'h');
    zarn_free(block);
}

TEST_F(allocator_start_test, AFailedStartOfTheAllocatorLeavesNothing) {
    sweep_failures([] {
        int32_t status = init_mempool();
        int32_t refused = test_kernel::refusals();
        test_kernel::fail_nothing();
        if (status == 0) {
            EXPECT_EQ(uninit_mempool(), 0);
        } else if (test_kernel::journal("region_delete").empty()) {
            EXPECT_EQ(status, test_kernel::kRefused) << "the region's own error";
            EXPECT_EQ(gMP.region, test_kernel::kRefused);
        } else {
            EXPECT_EQ(status, ERR_NO_MEMORY);
        }
        EXPECT_EQ(status != 0, refused != 0);
        EXPECT_EQ(test_kernel::leftovers(), "");
        test_kernel::clear_journal();
    });
    gMP = {};
}

}  // namespace
