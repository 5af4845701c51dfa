// SPDX-License-Identifier: MIT

#include "module/allocator.h"

#include <cstring>

#include "tests/support/fixture.h"

namespace {

using allocator_test = module_test;

// Where a block came from.
char source_of(const void *block) {
    if (block == nullptr) return '-';
    if (block < gMP.start || block >= gMP.end) return test_kernel::on_heap(block) ? 'h' : '?';
    if (block >= gMP.small_base) return 's';
    return block >= gMP.medium_base ? 'm' : 'l';
}

TEST_F(allocator_test, EachSizeComesFromItsClassAndGoesBackThereWithOnlyItsBytesCleared) {
    for (uint32_t size : {0u, 1u, kSmallBlock, kSmallBlock + 1, kMediumBlock, kMediumBlock + 1, kLargeBlock,
                          kLargeBlock + 1, 100000u}) {
        SCOPED_TRACE(size);
        const auto [source, block_size] = size <= kSmallBlock    ? std::pair('s', kSmallBlock)
                                          : size <= kMediumBlock ? std::pair('m', kMediumBlock)
                                          : size <= kLargeBlock  ? std::pair('l', kLargeBlock)
                                                                 : std::pair('h', size);
        auto *fast = static_cast<uint8_t *>(zarn_falloc(size));
        EXPECT_EQ(source_of(fast), source);
        memset(fast, 0x77, block_size);
        zarn_free(fast);
        auto *zeroed = static_cast<uint8_t *>(zarn_zalloc(size));
        EXPECT_EQ(source_of(zeroed), source);
        EXPECT_EQ(std::count(zeroed, zeroed + size, 0), size);
        if (source != 'h') {
            EXPECT_EQ(zeroed, fast) << "the block given back last is the next one out";
            EXPECT_EQ(std::count(zeroed + size, zeroed + block_size, 0x77), block_size - size);
        }
        zarn_free(zeroed);
        EXPECT_EQ(blocks_out(), "");
        auto *heap = static_cast<uint8_t *>(zarn_malloc(size));
        EXPECT_EQ(source_of(heap), 'h');
        EXPECT_EQ(std::count(heap, heap + size, 0), size);
        zarn_free(heap);
        EXPECT_EQ(test_kernel::heap_blocks(), 3) << "the records of the three pools";
    }
    zarn_free(nullptr);
}

TEST_F(allocator_test, ThePoolsFillTheRegionLargestFirstAndWhenDryFallBackToTheHeap) {
    const struct {
        uint32_t size;
        int32_t count;
        mempool_t *pool;
    } classes[] = {{kLargeBlock, 128, gMP.large_pool},
                   {kMediumBlock, 256, gMP.medium_pool},
                   {kSmallBlock, 1024, gMP.small_pool}};
    char *end = static_cast<char *>(gMP.start);
    std::vector<void *> blocks;
    for (auto &c : classes) {
        for (int32_t i = 0; i < c.count; ++i, end += c.size) {
            test_kernel::interrupt_level guard;  // a pool needs nothing of the heap
            blocks.push_back(zarn_falloc(c.size));
            ASSERT_EQ(blocks.back(), end);
        }
        void *heap = zarn_falloc(c.size);
        EXPECT_EQ(source_of(heap), 'h');
        zarn_free(heap);
        EXPECT_EQ(free_blocks(c.pool), 0) << "heap memory must not get into the pool";
    }
    EXPECT_EQ(end, gMP.end);
    EXPECT_EQ(end - static_cast<char *>(gMP.start), sizeof(void *) == 4 ? 0x50000 : 0x60000);
    test_kernel::fail_from(1);
    for (uint32_t size : {0u, 32u, 128u, 2048u, 2049u})
        EXPECT_TRUE(zarn_falloc(size) == nullptr && zarn_zalloc(size) == nullptr &&
                    zarn_malloc(size) == nullptr);
    test_kernel::interrupt_level guard;
    for (void *block : blocks)
        zarn_free(block);
    EXPECT_EQ(blocks_out(), "");
}

TEST_F(kernel_test, APoolThatIsNotThereIsLeftAloneByTheStop) {
    ASSERT_EQ(init_mempool(), 0);
    for (mempool_t **pool : {&gMP.small_pool, &gMP.medium_pool, &gMP.large_pool})
        delete_mempool(std::exchange(*pool, nullptr));
    EXPECT_EQ(uninit_mempool(), 0);
    gMP = {};
}

}  // namespace
